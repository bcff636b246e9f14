#include "platform/linux/OpenDirectory.h"

#include <dirent.h>
#include <endian.h>
#include <fcntl.h>
#include <linux/btrfs_tree.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/NameText.h"
#include "platform/linux/ExtentLayout.h"
#include "platform/linux/TreeFacts.h"

namespace quillmark::os {
namespace {

constexpr std::size_t listingBuffer = 32 * 1024;
// Few enough for their facts to be read in a fraction of a second from the slowest disk.
constexpr std::size_t recordsPerCall = 64;
constexpr std::size_t namesPerCall = 1024;
constexpr unsigned factsWanted = STATX_TYPE | STATX_MODE | STATX_UID | STATX_GID | STATX_INO | STATX_SIZE | STATX_MTIME;

// The entry itself, not what it leads to. EXDEV for a mount.
SysResult<UniqueFd> openPath(int directory, const char* name) {
  open_how how{};
  how.flags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  UniqueFd fd(static_cast<int>(::syscall(SYS_openat2, directory, name, &how, sizeof how)));
  if (!fd.valid()) return Errno{errno};
  return fd;
}

// What name_to_handle_at(2) gives on btrfs begins so.
struct BtrfsHandle {
  std::uint64_t number;
  std::uint64_t subvolume;
  std::uint32_t generation;
};
constexpr std::size_t btrfsHandleSize = 20;

// Elsewhere a handle is hashed as a whole (FNV-1a): what is in it is the file system's own affair.
std::uint64_t identityOfHandle(int fd, const char* name, std::uint64_t number, bool isBtrfs) {
  alignas(file_handle) unsigned char memory[sizeof(file_handle) + MAX_HANDLE_SZ];
  auto* handle = reinterpret_cast<file_handle*>(memory);
  handle->handle_bytes = MAX_HANDLE_SZ;
  int mount = 0;
  if (::name_to_handle_at(fd, name, handle, &mount, *name ? 0 : AT_EMPTY_PATH) != 0) return number;
  if (isBtrfs && handle->handle_bytes >= btrfsHandleSize) {
    BtrfsHandle parts;
    std::memcpy(&parts, handle->f_handle, btrfsHandleSize);
    return btrfsIdentity(parts.number, parts.generation);
  }
  constexpr std::uint64_t prime = 0x100000001b3;
  std::uint64_t hash = (0xcbf29ce484222325 ^ static_cast<std::uint32_t>(handle->handle_type)) * prime;
  for (unsigned i = 0; i < handle->handle_bytes; ++i) hash = (hash ^ handle->f_handle[i]) * prime;
  return hash;
}

}  // namespace

bool FactReader::addBtrfsFacts(FileFacts& facts, std::uint64_t number, int searched) {
  if (!search_) search_.emplace(btrfs::TreeSearch::smallBuffer);
  const bool isFile = facts.type == FileType::regular && facts.size > 0;
  bool isFound = false;
  std::uint64_t witness = isFile ? witnessOfHoles : 0;
  const btrfs::TreeKey first{number, BTRFS_INODE_ITEM_KEY, 0};
  const btrfs::TreeKey last = isFile ? btrfs::TreeKey{number, BTRFS_EXTENT_DATA_KEY, ~0ull} : first;
  const SysStatus status =
      search_->run(searched, 0, first, last, [&](const btrfs::TreeKey& key, std::span<const std::byte> item) {
        if (key.type == BTRFS_INODE_ITEM_KEY && item.size() >= sizeof(btrfs_inode_item)) {
          btrfs_inode_item inode;
          std::memcpy(&inode, item.data(), sizeof inode);
          facts.inode = btrfsIdentity(number, le64toh(inode.generation));
          isFound = true;
        }
        if (key.type == BTRFS_EXTENT_DATA_KEY) witness = withExtent(witness, facts.size, key.offset, item);
        return true;
      });
  if (!status || !isFound) return false;
  facts.generation = witness;
  facts.hasGeneration = true;
  return true;
}

SysResult<FileFacts> FactReader::complete(const struct statx& status, int fd, const char* name, int searched) {
  FileFacts facts = factsOf(status);
  if (device_.isBtrfs && addBtrfsFacts(facts, status.stx_ino, searched)) return facts;
  facts.inode = identityOfHandle(fd, name, status.stx_ino, device_.isBtrfs);
  return facts;
}

SysResult<FileFacts> FactReader::ofEntry(int directory, const char* name, unsigned char kind) {
  int fd = directory;
  const char* entry = name;
  UniqueFd opened;
  if (kind == DT_DIR || kind == DT_UNKNOWN) {
    auto path = openPath(directory, name);
    if (!path && path.error() == EXDEV) return placeholderFacts(FileType::directory);
    if (!path) return Errno{path.error()};
    opened = std::move(*path);
    fd = opened.get();
    entry = "";
  }
  struct statx status;
  const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (*entry ? 0 : AT_EMPTY_PATH);
  if (::statx(fd, entry, flags, factsWanted, &status) != 0) return Errno{errno};
  // A mount on a file, a nested subvolume, and what a snapshot has in the place of one.
  const bool isElsewhere = (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0 || !device_.contains(status) ||
                           (device_.isBtrfs && status.stx_ino == nestedStandIn);
  if (isElsewhere) return placeholderFacts(factsOf(status).type);
  return complete(status, fd, entry, directory);
}

SysResult<FileFacts> FactReader::ofRoot(int fd, const struct statx& status) { return complete(status, fd, "", fd); }

LinuxOpenDirectory::LinuxOpenDirectory(UniqueFd fd, const TreeDevice& device)
    : fd_(std::move(fd)), facts_(device), buffer_(std::make_unique_for_overwrite<std::byte[]>(listingBuffer)) {}

LinuxOpenDirectory::~LinuxOpenDirectory() = default;

SysResult<const LinuxOpenDirectory::Entry*> LinuxOpenDirectory::next() {
  for (;;) {
    if (at_ == filled_) {
      const long read = ::syscall(SYS_getdents64, fd_.get(), buffer_.get(), listingBuffer);
      if (read < 0) return Errno{errno};
      if (read == 0) return nullptr;
      filled_ = static_cast<std::size_t>(read);
      at_ = 0;
    }
    const auto* entry = reinterpret_cast<const dirent64*>(buffer_.get() + at_);
    before_ = at_;
    at_ += entry->d_reclen;
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    entry_ = {entry->d_name, entry->d_type};
    return &entry_;
  }
}

SysResult<bool> LinuxOpenDirectory::readRecords(DirectoryRecords& into) {
  std::size_t count = 0;
  while (count < recordsPerCall) {
    const auto entry = next();
    if (!entry) return Errno{entry.error()};
    if (!*entry) return count > 0;
    const auto facts = facts_.ofEntry(fd_.get(), (*entry)->name, (*entry)->kind);
    if (!facts && facts.error() == ENOENT) continue;
    if (!facts) {
      at_ = before_;
      return Errno{facts.error()};
    }
    text_.clear();
    appendNameText(text_, (*entry)->name);
    into.add(text_, *facts);
    ++count;
  }
  return true;
}

SysResult<std::vector<std::string>> LinuxOpenDirectory::readNames() {
  std::vector<std::string> names;
  while (names.size() < namesPerCall) {
    const auto entry = next();
    if (!entry) return Errno{entry.error()};
    if (!*entry) break;
    names.push_back(nameText((*entry)->name));
  }
  return names;
}

std::string LinuxOpenDirectory::bytesOf(const std::string& name) {
  std::string bytes = nameBytes(name);
  const bool isOne =
      bytes != "." && bytes != ".." && bytes.find_first_of(std::string_view("/\0", 2)) == std::string::npos;
  return isOne ? bytes : std::string();
}

SysResult<FileFacts> LinuxOpenDirectory::lstat(const std::string& name) {
  const std::string bytes = bytesOf(name);
  if (bytes.empty()) return Errno{EINVAL};
  return facts_.ofEntry(fd_.get(), bytes.c_str(), DT_UNKNOWN);
}

SysResult<std::uint64_t> LinuxOpenDirectory::generationOf(const std::string&) { return Errno{ENOTSUP}; }

SysResult<std::unique_ptr<FileLayout>> LinuxOpenDirectory::layoutOf(const std::string& name) {
  const std::string bytes = bytesOf(name);
  if (bytes.empty()) return Errno{EINVAL};
  return ExtentLayout::open(fd_.get(), bytes.c_str());
}

}  // namespace quillmark::os
