#include "platform/linux/DirectoryReader.h"

#include <fcntl.h>
#include <linux/ioprio.h>
#include <linux/limits.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/NameText.h"
#include "platform/linux/BtrfsTree.h"
#include "platform/linux/ExtentLayout.h"
#include "platform/linux/OpenDirectory.h"
#include "platform/linux/SnapshotNames.h"
#include "platform/linux/TreeFacts.h"

namespace quillmark::os {
namespace {

constexpr std::size_t longestPath = PATH_MAX - 1;

SysResult<UniqueFd> openOnce(int root, const char* path, std::uint64_t flags) {
  open_how how{};
  how.flags = flags | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  // EAGAIN: something was renamed meanwhile, and the kernel can't be sure.
  for (int attempt = 0;; ++attempt) {
    UniqueFd fd(static_cast<int>(::syscall(SYS_openat2, root, path, &how, sizeof how)));
    if (fd.valid()) return fd;
    if (errno != EAGAIN || attempt == 32) return Errno{errno};
  }
}

// Reading a directory must not change its time of access; only who may leave that alone is let.
SysResult<UniqueFd> openForReading(int root, const char* path) {
  auto fd = openOnce(root, path, O_RDONLY | O_DIRECTORY | O_NOATIME);
  if (!fd && fd.error() == EPERM) return openOnce(root, path, O_RDONLY | O_DIRECTORY);
  return fd;
}

// A path of any length, in steps of what one call takes.
SysResult<UniqueFd> openBeneath(int root, std::string bytes) {
  UniqueFd step;
  while (bytes.size() > longestPath) {
    const std::size_t slash = bytes.rfind('/', longestPath);
    if (slash == std::string::npos || slash == 0) return Errno{ENAMETOOLONG};
    auto next = openOnce(step.valid() ? step.get() : root, bytes.substr(0, slash).c_str(), O_PATH | O_DIRECTORY);
    if (!next) return next;
    step = std::move(*next);
    bytes.erase(0, slash + 1);
  }
  return openForReading(step.valid() ? step.get() : root, bytes.c_str());
}

// A file, a link or a mount has come into the place of the directory that was there.
bool isGone(int error) { return error == ENOTDIR || error == ELOOP || error == EXDEV; }

// For reading, what is a path only, or is open already.
UniqueFd reopen(int fd) {
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  return UniqueFd(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

bool isBtrfs(int fd) {
  struct statfs status;
  return ::fstatfs(fd, &status) == 0 && status.f_type == BTRFS_SUPER_MAGIC;
}

// The top level holds our snapshots, and so does each snapshot of it.
bool holdsOurPlace(int root) {
  const auto subvolume = btrfs::subvolumeOf(root);
  if (!subvolume) return false;
  if (subvolume->id == btrfs::topLevelId) return true;
  const auto top = btrfs::findSubvolume(root, btrfs::topLevelId);
  if (!top) return false;
  if (!top->subvolume.uuid.isNil()) return subvolume->parentUuid == top->subvolume.uuid;
  // Made by old tools, it has no UUID, and its snapshots name no parent: they are known by where they stand.
  const auto fsid = btrfs::fsidOf(root);
  const auto found = btrfs::findSubvolume(root, subvolume->id);
  if (!fsid || !found || !found->place || found->place->parent != btrfs::topLevelId) return false;
  const auto directory = btrfs::directoryPath(root, btrfs::topLevelId, found->place->directory);
  return directory && *directory == std::string(placesDirectory) + "/" + fsid->lower() + "/";
}

class LinuxOpenTree final : public OpenTree {
 public:
  static SysResult<std::unique_ptr<OpenTree>> make(const std::string& root) {
    const std::string bytes = nameBytes(root);
    if (bytes.find('\0') != std::string::npos) return Errno{EINVAL};
    const UniqueFd path(::open(bytes.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!path.valid()) return Errno{errno};
    return make(path.get());
  }

  static SysResult<std::unique_ptr<OpenTree>> make(int item) {
    struct statx status;
    if (::statx(item, "", AT_EMPTY_PATH, STATX_BASIC_STATS, &status) != 0) return Errno{errno};
    std::unique_ptr<LinuxOpenTree> tree(new LinuxOpenTree());
    tree->device_ = {status.stx_dev_major, status.stx_dev_minor, isBtrfs(item)};
    if (S_ISDIR(status.stx_mode)) tree->openRoot(item, status);
    if (S_ISREG(status.stx_mode)) tree->file_ = reopen(item);
    const int opened = tree->file_.valid() ? tree->file_.get() : tree->root_.valid() ? tree->root_.get() : item;
    const auto facts = FactReader(tree->device_).ofRoot(opened, status);
    if (!facts) return Errno{facts.error()};
    tree->facts_ = *facts;
    return std::unique_ptr<OpenTree>(std::move(tree));
  }

  const FileFacts& root() const override { return facts_; }
  const std::string& ownPlace() const override { return ownPlace_; }

  SysResult<std::unique_ptr<FileLayout>> rootLayout() override {
    if (!file_.valid()) return Errno{EINVAL};
    UniqueFd fd = reopen(file_.get());
    if (!fd.valid()) return Errno{errno};
    return ExtentLayout::of(std::move(fd));
  }

  SysResult<std::unique_ptr<WholeTree>> openWhole() override {
    const bool isRoots = ::geteuid() == 0;  // a thread that took a user's identity reads what its directories let it
    if (!isSubvolume_ || !root_.valid() || !isRoots) return Errno{ENOTSUP};
    return BtrfsTree::open(root_.get());
  }

  SysResult<std::unique_ptr<OpenDirectory>> open(const std::string& path) override {
    if (!root_.valid()) return Errno{openError_};
    auto fd = openBeneath(root_.get(), path.empty() ? "." : nameBytes(path).substr(1));
    if (!fd) return Errno{isGone(fd.error()) ? ENOENT : fd.error()};
    return std::unique_ptr<OpenDirectory>(std::make_unique<LinuxOpenDirectory>(std::move(*fd), device_));
  }
  SysResult<std::unique_ptr<OpenDirectory>> opendir(const std::string& path) override { return open(path); }

  // No file system here fetches content unasked.
  SysResult<bool> isDataless(const std::string&) override { return false; }

 private:
  LinuxOpenTree() = default;

  void openRoot(int path, const struct statx& status) {
    auto opened = openForReading(path, ".");
    if (!opened) {
      openError_ = opened.error();
      return;
    }
    root_ = std::move(*opened);
    isSubvolume_ = device_.isBtrfs && status.stx_ino == btrfs::rootInode;
    if (isSubvolume_ && holdsOurPlace(root_.get())) ownPlace_ = placesDirectory;
  }

  UniqueFd root_;  // none when it is no directory, or can't be read
  UniqueFd file_;  // the root when it is a regular file
  int openError_ = ENOTDIR;
  TreeDevice device_;
  bool isSubvolume_ = false;
  FileFacts facts_;
  std::string ownPlace_;
};

class IdlePriority final : public LowPriority {
 public:
  IdlePriority() : before_(static_cast<int>(::syscall(SYS_ioprio_get, IOPRIO_WHO_PROCESS, 0))) {
    (void)::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, IOPRIO_PRIO_VALUE(IOPRIO_CLASS_IDLE, 0));
  }
  ~IdlePriority() override { (void)::syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, std::max(before_, 0)); }
  IdlePriority(const IdlePriority&) = delete;
  IdlePriority& operator=(const IdlePriority&) = delete;

 private:
  const int before_;
};

}  // namespace

SysResult<std::unique_ptr<OpenTree>> LinuxDirectoryReader::openTree(const std::string& root) {
  return LinuxOpenTree::make(root);
}

SysResult<std::unique_ptr<OpenTree>> LinuxDirectoryReader::openItem(int fd) { return LinuxOpenTree::make(fd); }

unsigned LinuxDirectoryReader::processorCount() {
  cpu_set_t set;
  if (::sched_getaffinity(0, sizeof set, &set) == 0) return std::max(1U, static_cast<unsigned>(CPU_COUNT(&set)));
  return static_cast<unsigned>(std::max(1L, ::sysconf(_SC_NPROCESSORS_ONLN)));
}

std::uint64_t LinuxDirectoryReader::memorySize() {
  const long pages = ::sysconf(_SC_PHYS_PAGES), pageSize = ::sysconf(_SC_PAGE_SIZE);
  if (pages <= 0 || pageSize <= 0) return DirectoryReader::memorySize();
  return static_cast<std::uint64_t>(pages) * static_cast<std::uint64_t>(pageSize);
}

std::unique_ptr<LowPriority> LinuxDirectoryReader::lowerPriority() { return std::make_unique<IdlePriority>(); }

}  // namespace quillmark::os
