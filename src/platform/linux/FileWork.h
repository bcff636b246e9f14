// LinuxFileWork: the file calls of this machine, kept beneath a directory by openat2(2).
// Threads: thread-safe.
#pragma once

#include "platform/FileWork.h"

namespace quillmark::os {

class LinuxFileWork final : public FileWork {
 public:
  SysResult<int> openDirectory(const std::string& path) override;
  SysResult<StatRecord> lstat(const std::string& path) override;
  SysResult<int> openChild(int parent, const std::string& name) override;
  SysResult<int> openBeneath(int root, const std::string& path) override;
  SysResult<int> createFile(int parent, const std::string& name, std::uint32_t mode) override;
  void close(int fd) override;
  SysStatus mkdirat(int parent, const std::string& name, std::uint32_t mode) override;
  SysStatus unlinkat(int parent, const std::string& name) override;
  SysStatus rmdirat(int parent, const std::string& name) override;
  SysStatus rename(int fromParent, const std::string& from, int toParent, const std::string& to,
                   RenameMode mode) override;
  SysResult<StatRecord> fstatat(int parent, const std::string& name) override;
  SysResult<StatRecord> fstat(int fd) override;
  SysResult<std::vector<ListedName>> readNames(int directory) override;
  SysStatus seekNames(int directory, std::int64_t position) override;
  SysResult<std::size_t> write(int fd, std::string_view bytes) override;
  SysStatus fchown(int fd, std::uint32_t uid, std::uint32_t gid) override;
  SysStatus fchmod(int fd, std::uint32_t mode) override;
  SysStatus futimens(int fd, FileTime accessed, FileTime modified) override;
  SysResult<std::vector<std::string>> flistxattr(int fd) override;
  SysResult<std::string> fgetxattr(int fd, const std::string& name) override;
  SysStatus fsetxattr(int fd, const std::string& name, std::string_view value) override;
  SysResult<AccessControlList> accessControlList(int fd) override;
  SysStatus setAccessControlList(int fd, const AccessControlList& list) override;
  SysResult<std::uint32_t> flags(int fd) override;
  SysStatus setFlags(int fd, std::uint32_t flags) override;
};

}  // namespace quillmark::os
