// FileWork: file calls relative to open directories, for work in places that others can change meanwhile. Thin covers of
// the calls of the same names (man pages, section 2). Names and paths are text (platform/NameText.h); what is called
// name is one name below the directory given, and no call follows a link that stands there.
// Ownership: descriptors are the caller's until close(); all are close-on-exec.
// Threads:   thread-safe. The position of readNames belongs to the descriptor: one reader each.
// Errors:    errno, untouched; EINTR reaches the caller of write only. EINVAL for a name that is more or less than one.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/SysResult.h"
#include "platform/posix.h"

namespace quillmark {

struct FileTime {
  std::int64_t seconds = 0;  // since 1970
  std::int64_t nanoseconds = 0;
  friend bool operator==(const FileTime&, const FileTime&) = default;
};

// What stat(2) tells, exactly.
struct StatRecord {
  FileType type = FileType::other;
  std::uint32_t mode = 0;  // permission bits, setuid, setgid and sticky
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::int64_t size = 0;
  std::uint64_t links = 0;
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  FileTime accessed;
  FileTime modified;
  FileTime changed;
};

enum class RenameMode {
  replace,    // whatever stands at the target goes
  exclusive,  // EEXIST when something stands there
  exchange,   // the two change places
};

// The lists of a file in the platform's own form; absent where the mode says it all.
struct AccessControlList {
  std::optional<std::string> access;
  std::optional<std::string> inherited;  // a directory's, for what is made in it
  [[nodiscard]] bool empty() const { return !access && !inherited; }
  friend bool operator==(const AccessControlList&, const AccessControlList&) = default;
};

struct ListedName {
  std::string name;
  std::int64_t next = 0;  // the position behind it
};

class FileWork {
 public:
  virtual ~FileWork() = default;

  // Absolute paths, which may pass through links.
  [[nodiscard]] virtual SysResult<int> openDirectory(const std::string& path) = 0;
  [[nodiscard]] virtual SysResult<StatRecord> lstat(const std::string& path) = 0;

  // ELOOP for a link, ENOTDIR for anything else that is no directory.
  [[nodiscard]] virtual SysResult<int> openChild(int parent, const std::string& name) = 0;
  // A directory several names below another, "." for itself: ELOOP where one of them is a link, EXDEV where they lead to
  // another mount or out of the directory.
  [[nodiscard]] virtual SysResult<int> openBeneath(int root, const std::string& path) = 0;
  // A new file, for writing; EEXIST when anything stands there.
  [[nodiscard]] virtual SysResult<int> createFile(int parent, const std::string& name, std::uint32_t mode) = 0;
  virtual void close(int fd) = 0;

  [[nodiscard]] virtual SysStatus mkdirat(int parent, const std::string& name, std::uint32_t mode) = 0;
  [[nodiscard]] virtual SysStatus unlinkat(int parent, const std::string& name) = 0;
  // unlinkat with AT_REMOVEDIR. Removes an empty nested volume like a directory.
  [[nodiscard]] virtual SysStatus rmdirat(int parent, const std::string& name) = 0;
  [[nodiscard]] virtual SysStatus rename(int fromParent, const std::string& from, int toParent, const std::string& to,
                                         RenameMode mode) = 0;
  [[nodiscard]] virtual SysResult<StatRecord> fstatat(int parent, const std::string& name) = 0;
  [[nodiscard]] virtual SysResult<StatRecord> fstat(int fd) = 0;
  // Some names from the descriptor's position on, in the directory's order, without "." and ".."; none at the end.
  [[nodiscard]] virtual SysResult<std::vector<ListedName>> readNames(int directory) = 0;
  [[nodiscard]] virtual SysStatus seekNames(int directory, std::int64_t position) = 0;

  // May write less than asked.
  [[nodiscard]] virtual SysResult<std::size_t> write(int fd, std::string_view bytes) = 0;
  [[nodiscard]] virtual SysStatus fchown(int fd, std::uint32_t uid, std::uint32_t gid) = 0;
  [[nodiscard]] virtual SysStatus fchmod(int fd, std::uint32_t mode) = 0;
  [[nodiscard]] virtual SysStatus futimens(int fd, FileTime accessed, FileTime modified) = 0;

  // Extended attributes with their full names ("user.colour"); ENODATA for one that isn't there.
  [[nodiscard]] virtual SysResult<std::vector<std::string>> flistxattr(int fd) = 0;
  [[nodiscard]] virtual SysResult<std::string> fgetxattr(int fd, const std::string& name) = 0;
  [[nodiscard]] virtual SysStatus fsetxattr(int fd, const std::string& name, std::string_view value) = 0;

  // Empty also where the file system knows no such lists.
  [[nodiscard]] virtual SysResult<AccessControlList> accessControlList(int fd) = 0;
  // Takes away what is absent.
  [[nodiscard]] virtual SysStatus setAccessControlList(int fd, const AccessControlList& list) = 0;

  // The flags of a file that tell how it may be used (immutable, append only, no dump, no access time, synchronous), in
  // the platform's own bits; what concerns its storage is left out.
  [[nodiscard]] virtual SysResult<std::uint32_t> flags(int fd) = 0;
  [[nodiscard]] virtual SysStatus setFlags(int fd, std::uint32_t flags) = 0;
};

// A descriptor of a FileWork, closed with its owner.
class WorkDescriptor final {
 public:
  WorkDescriptor() = default;
  WorkDescriptor(FileWork& work, int fd) : work_(&work), fd_(fd) {}
  WorkDescriptor(WorkDescriptor&& other) noexcept : work_(other.work_), fd_(std::exchange(other.fd_, -1)) {}
  WorkDescriptor& operator=(WorkDescriptor&& other) noexcept {
    if (this == &other) return *this;
    close();
    work_ = other.work_;
    fd_ = std::exchange(other.fd_, -1);
    return *this;
  }
  ~WorkDescriptor() { close(); }
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool valid() const { return fd_ >= 0; }
  void close() {
    if (fd_ >= 0) work_->close(std::exchange(fd_, -1));
  }

 private:
  FileWork* work_ = nullptr;
  int fd_ = -1;
};

}  // namespace quillmark
