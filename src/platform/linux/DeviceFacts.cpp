#include "platform/linux/DeviceFacts.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>

#include "base/Text.h"
#include "base/UniqueFd.h"
#include "platform/NameText.h"

namespace quillmark::os {
namespace {

constexpr int stackLimit = 8;

std::vector<std::string> sortedNames(const std::string& directory) {
  struct Close {
    void operator()(DIR* open) const { ::closedir(open); }
  };
  std::vector<std::string> names;
  const std::unique_ptr<DIR, Close> open(::opendir(directory.c_str()));
  while (const dirent* entry = open ? ::readdir(open.get()) : nullptr) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<std::string> attribute(const std::string& path) {
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  char buffer[4096];
  const ssize_t count = file.valid() ? ::read(file.get(), buffer, sizeof buffer) : -1;
  if (count < 0) return std::nullopt;
  return trimWhitespaceAndNewlines(nameText({buffer, static_cast<std::size_t>(count)}));
}

std::optional<std::string> realPath(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
  if (!resolved) return std::nullopt;
  return std::string(resolved.get());
}

std::string parentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

std::vector<std::string> components(const std::string& path) {
  std::vector<std::string> parts;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (end > at) parts.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  return parts;
}

bool exists(const std::string& path) { return ::faccessat(AT_FDCWD, path.c_str(), F_OK, AT_EACCESS) == 0; }

// A block device's directory, with partitions replaced by their disk.
std::string wholeDisk(const std::string& device) { return exists(device + "/partition") ? parentOf(device) : device; }

// The kernel marks what stands behind a port that opens to the outside.
bool isBehindExternalPort(const std::string& disk, const std::string& sysfs) {
  for (std::string at = disk; at.size() > sysfs.size() + 1; at = parentOf(at)) {
    if (attribute(at + "/removable") == "removable") return true;
  }
  return false;
}

struct Kind {
  const char* protocol;
  bool isInternal;
  std::vector<std::string> classes;
};

Kind mmcKind(const std::string& disk) {
  if (attribute(disk + "/device/type") == "SD") return {"SD Card", false, {"AppleSDXC"}};
  return {"MMC", true, {}};
}

std::optional<Kind> kindOf(const std::string& disk, const std::string& sysfs) {
  const std::vector<std::string> path = components(disk);
  const auto has = [&](std::string_view prefix, auto follows) {
    return std::any_of(path.begin(), path.end(), [&](const std::string& part) {
      return part.starts_with(prefix) && part.size() > prefix.size() && follows(part[prefix.size()]);
    });
  };
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  if (has("usb", isDigit)) return Kind{"USB", false, {"IOUSBHostDevice", "IOPCIDevice"}};
  if (has("loop", isDigit)) return Kind{"Loop", false, {}};
  if (has("mmc", isDigit)) return mmcKind(disk);
  if (has("virtio", isDigit)) return Kind{"Virtio", true, {}};
  if (has("nvme", isDigit)) {
    if (isBehindExternalPort(disk, sysfs)) return Kind{"Thunderbolt", false, {"IOThunderboltPort"}};
    return Kind{"NVMe", true, {"IONVMeBlockStorageDevice", "IONVMeController", "IOPCIDevice"}};
  }
  if (has("ata", isDigit)) return Kind{"SATA", true, {"IOAHCIBlockStorageDevice", "IOPCIDevice"}};
  if (has("host", isDigit)) return Kind{"SCSI", true, {}};
  return std::nullopt;
}

struct Stack {
  std::string disk;  // the physical one
  bool crypt = false;
};

// Down the slaves of device mapper and md, by the first of each.
Stack physicalDisk(std::string disk) {
  Stack stack{std::move(disk)};
  for (int depth = 0; depth < stackLimit; ++depth) {
    const auto uuid = attribute(stack.disk + "/dm/uuid");
    stack.crypt = stack.crypt || (uuid && uuid->starts_with("CRYPT-"));
    const std::vector<std::string> slaves = sortedNames(stack.disk + "/slaves");
    const auto slave = slaves.empty() ? std::nullopt : realPath(stack.disk + "/slaves/" + slaves.front());
    if (!slave) break;
    stack.disk = wholeDisk(*slave);
  }
  return stack;
}

}  // namespace

std::optional<DeviceFacts> deviceFacts(const Uuid& fileSystem, const std::string& sysfs) {
  const std::string members = sysfs + "/fs/btrfs/" + fileSystem.lower() + "/devices";
  std::vector<Stack> stacks;
  for (const std::string& name : sortedNames(members)) {
    if (const auto device = realPath(members + "/" + name)) stacks.push_back(physicalDisk(wholeDisk(*device)));
  }
  if (stacks.empty()) return std::nullopt;
  const std::string& disk = stacks.front().disk;
  const auto kind = kindOf(disk, sysfs);
  const auto removable = attribute(disk + "/removable");
  DeviceFacts facts;
  facts.classes = {"IOMedia"};
  if (kind) {
    facts.protocol = kind->protocol;
    facts.classes.insert(facts.classes.end(), kind->classes.begin(), kind->classes.end());
  }
  if (removable || kind) facts.isInternal = (!kind || kind->isInternal) && removable != "1";
  facts.model = attribute(disk + "/device/model");
  if (facts.model && facts.model->empty()) facts.model.reset();
  const bool isEncrypted = std::all_of(stacks.begin(), stacks.end(), [](const Stack& stack) { return stack.crypt; });
  if (isEncrypted || (kind && facts.protocol != "Loop")) facts.isEncrypted = isEncrypted;
  return facts;
}

}  // namespace quillmark::os
