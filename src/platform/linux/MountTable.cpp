#include "platform/linux/MountTable.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <set>
#include <unordered_set>

#include "base/UniqueFd.h"
#include "platform/NameText.h"

namespace quillmark::os {
namespace {

bool isOctal(char c) { return c >= '0' && c <= '7'; }

// The kernel writes blanks, line feeds, backslashes and, in options, commas as \ooo.
std::string unescaped(std::string_view field) {
  std::string bytes;
  bytes.reserve(field.size());
  for (std::size_t at = 0; at < field.size(); ++at) {
    const bool escape = field[at] == '\\' && at + 3 < field.size() && field[at + 1] <= '3' && isOctal(field[at + 1]) &&
                        isOctal(field[at + 2]) && isOctal(field[at + 3]);
    if (escape) {
      bytes += static_cast<char>((field[at + 1] - '0') << 6 | (field[at + 2] - '0') << 3 | (field[at + 3] - '0'));
      at += 3;
    } else {
      bytes += field[at];
    }
  }
  return bytes;
}

std::string nameField(std::string_view field) { return nameText(unescaped(field)); }

std::string_view cut(std::string_view& rest, char separator) {
  const std::size_t end = std::min(rest.find(separator), rest.size());
  const std::string_view head = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return head;
}

template <class Number>
bool parseNumber(std::string_view text, Number& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

template <class Use>
void forEachOption(std::string_view options, Use use) {
  while (!options.empty()) use(cut(options, ','));
}

void readSuperOptions(std::string_view options, MountEntry& entry) {
  forEachOption(options, [&](std::string_view option) {
    std::uint64_t id = 0;
    if (option == "ro") entry.superReadOnly = true;
    if (option.starts_with("subvolid=") && parseNumber(option.substr(9), id)) entry.subvolumeId = id;
    if (option.starts_with("subvol=")) entry.subvolume = nameField(option.substr(7));
  });
}

std::optional<MountEntry> parseLine(std::string_view line) {
  MountEntry entry;
  std::string_view rest = line;
  if (!parseNumber(cut(rest, ' '), entry.id) || !parseNumber(cut(rest, ' '), entry.parent)) return std::nullopt;
  std::string_view device = cut(rest, ' ');
  if (!parseNumber(cut(device, ':'), entry.device.major) || !parseNumber(device, entry.device.minor)) {
    return std::nullopt;
  }
  entry.root = nameField(cut(rest, ' '));
  entry.mountPoint = nameField(cut(rest, ' '));
  forEachOption(cut(rest, ' '), [&](std::string_view option) {
    if (option == "ro") entry.readOnly = true;
    if (option == "nosuid") entry.noSuid = true;
    if (option == "nodev") entry.noDev = true;
  });
  while (!rest.empty() && cut(rest, ' ') != "-") continue;
  entry.type = nameField(cut(rest, ' '));
  if (entry.type.empty() || !entry.mountPoint.starts_with('/')) return std::nullopt;
  entry.source = nameField(cut(rest, ' '));
  readSuperOptions(rest, entry);
  return entry;
}

}  // namespace

bool MountEntry::answersAlways() const {
  static constexpr std::array<std::string_view, 30> kinds = {
      "btrfs", "ext2",   "ext3",  "ext4",     "xfs",    "f2fs",     "vfat",     "msdos",     "exfat", "bcachefs",
      "zfs",   "jfs",    "ntfs3", "reiserfs", "nilfs2", "hfs",      "hfsplus",  "udf",       "ubifs", "iso9660",
      "erofs", "cramfs", "tmpfs", "ramfs",    "rootfs", "squashfs", "devtmpfs", "hugetlbfs", "sysfs", "overlay"};
  return mountPoint == "/" || std::find(kinds.begin(), kinds.end(), type) != kinds.end();
}

bool MountEntry::isServedElsewhere() const {
  static constexpr std::array<std::string_view, 19> kernels = {
      "proc",      "nsfs",       "cgroup",   "cgroup2", "devpts",   "mqueue",  "debugfs",
      "tracefs",   "securityfs", "configfs", "pstore",  "efivarfs", "fusectl", "binfmt_misc",
      "selinuxfs", "rpc_pipefs", "bpf",      "nfsd",    "resctrl"};
  return !answersAlways() && std::find(kernels.begin(), kernels.end(), type) == kernels.end();
}

MountTable MountTable::parse(std::string_view text) {
  MountTable table;
  while (!text.empty()) {
    if (auto entry = parseLine(cut(text, '\n'))) table.entries_.push_back(std::move(*entry));
  }
  table.index();
  return table;
}

SysResult<MountTable> MountTable::read() {
  const UniqueFd file(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
  if (!file.valid()) return Errno{errno};
  std::string text;
  for (;;) {
    char buffer[65536];
    const ssize_t count = ::read(file.get(), buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return Errno{errno};
    if (count == 0) return parse(text);
    text.append(buffer, static_cast<std::size_t>(count));
  }
}

void MountTable::index() {
  std::unordered_set<std::uint64_t> ids;
  for (const MountEntry& entry : entries_) ids.insert(entry.id);
  for (std::size_t i = 0; i < entries_.size(); ++i) {
    const bool hangsOutside = entries_[i].parent == entries_[i].id || !ids.contains(entries_[i].parent);
    children_.push_back({hangsOutside ? outside : entries_[i].parent, i});
  }
  std::stable_sort(children_.begin(), children_.end(), [&](const Child& a, const Child& b) {
    return std::tie(a.parent, entries_[a.entry].mountPoint) < std::tie(b.parent, entries_[b.entry].mountPoint);
  });
  for (MountEntry& entry : entries_) {
    if (entry.isBtrfs()) entry.isReachable = isWayOpen(entry);
  }
}

bool MountTable::isWayOpen(const MountEntry& entry) const {
  const std::string_view path = entry.mountPoint;
  for (std::size_t end = path.find('/', 1); end != path.npos; end = path.find('/', end + 1)) {
    const MountEntry* held = holder(path.substr(0, end));
    if (held && !held->answersAlways()) return false;
  }
  return true;
}

const MountEntry* MountTable::child(std::uint64_t parent, std::string_view mountPoint) const {
  const auto end = std::upper_bound(children_.begin(), children_.end(), std::pair(parent, mountPoint),
                                    [&](const auto& wanted, const Child& child) {
                                      const std::string_view point = entries_[child.entry].mountPoint;
                                      return wanted < std::pair(child.parent, point);
                                    });
  if (end == children_.begin()) return nullptr;
  const Child& last = *std::prev(end);
  const MountEntry& entry = entries_[last.entry];
  return last.parent == parent && entry.mountPoint == mountPoint ? &entry : nullptr;
}

const MountEntry* MountTable::topmost(const MountEntry* below, std::string_view path) const {
  // The bound keeps a text that no kernel writes, with parents in a ring, from holding us.
  for (std::size_t step = 0; step < entries_.size(); ++step) {
    const MountEntry* above = child(below ? below->id : outside, path);
    if (!above) break;
    below = above;
  }
  return below;
}

const MountEntry* MountTable::holder(std::string_view path) const {
  if (!path.starts_with('/')) return nullptr;
  const MountEntry* current = topmost(nullptr, "/");
  for (std::size_t at = 1; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (end > at) current = topmost(current, path.substr(0, end));
    at = end + 1;
  }
  return current;
}

const MountEntry* MountTable::at(std::string_view mountPoint) const {
  const MountEntry* entry = holder(mountPoint);
  return entry && entry->mountPoint == mountPoint ? entry : nullptr;
}

std::vector<const MountEntry*> MountTable::volumes() const {
  std::vector<const MountEntry*> found;
  std::set<std::pair<DeviceNumber, std::uint64_t>> seen;
  for (const MountEntry& entry : entries_) {
    if (!entry.isVolume() || seen.contains({entry.device, *entry.subvolumeId}) || !isVisible(entry)) continue;
    seen.insert({entry.device, *entry.subvolumeId});
    found.push_back(&entry);
  }
  return found;
}

const MountEntry* MountTable::writableMount(DeviceNumber device) const {
  for (const MountEntry& entry : entries_) {
    if (entry.isBtrfs() && entry.device == device && !entry.readOnly && !entry.superReadOnly) return &entry;
  }
  return nullptr;
}

bool MountTable::isMounted(DeviceNumber device, std::uint64_t subvolumeId) const {
  return std::any_of(entries_.begin(), entries_.end(), [&](const MountEntry& entry) {
    return entry.device == device && entry.subvolumeId == subvolumeId;
  });
}

}  // namespace quillmark::os
