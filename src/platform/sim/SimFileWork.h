// SimFileWork: the real file calls on a temporary tree, under a plan of faults. Outside of the tree nothing exists for
// paths. Owners are kept beside the files, so that no test needs to be root.
// Ownership: owns the tree, which goes with it, unless it was made on another's.
// Threads:   thread-compatible.
#pragma once

#include <map>
#include <set>

#include "base/UniqueFunction.h"
#include "platform/linux/FileWork.h"
#include "platform/sim/FaultPlan.h"

namespace quillmark::sim {

enum class FileWorkCall {
  openDirectory,
  lstat,
  openChild,
  openBeneath,
  createFile,
  mkdirat,
  unlinkat,
  rmdirat,
  rename,
  fstatat,
  fstat,
  readNames,
  seekNames,
  write,
  fchown,
  fchmod,
  futimens,
  flistxattr,
  fgetxattr,
  fsetxattr,
  accessControlList,
  setAccessControlList,
  flags,
  setFlags,
};

[[nodiscard]] std::string nameOf(FileWorkCall call);

// Which one call goes wrong, and how.
struct FileWorkFault {
  Fault fault = Fault::none;
  std::uint64_t atCall = 1;               // counted from 1
  std::optional<FileWorkCall> only = {};  // absent: calls of all kinds are counted
  int error = 5;                          // EIO
  [[nodiscard]] std::string describe() const;
};

class SimFileWork final : public FileWork {
 public:
  SimFileWork();
  // On a tree that another simulated facility owns.
  explicit SimFileWork(std::string root);
  ~SimFileWork() override;
  SimFileWork(const SimFileWork&) = delete;
  SimFileWork& operator=(const SimFileWork&) = delete;

  [[nodiscard]] const std::string& root() const { return root_; }

  // Starts counting anew, and ends the state of having been killed.
  void setFault(FileWorkFault fault);
  [[nodiscard]] bool faultFired() const { return fired_; }
  // Ends the life at once, without an exception; should it return, the call answers EIO.
  void onKill(UniqueFunction<void()> hook) { killHook_ = std::move(hook); }
  // After this every call answers EIO and has no effect.
  void kill() { killed_ = true; }
  // Another's hand: called before each call, which finds what it did to the tree.
  void beforeEach(UniqueFunction<void(FileWorkCall)> hook) { hook_ = std::move(hook); }
  // Since the last setFault.
  [[nodiscard]] const std::vector<FileWorkCall>& calls() const { return calls_; }
  [[nodiscard]] std::size_t openNow() const { return open_.size(); }
  [[nodiscard]] std::size_t mostOpen() const { return mostOpen_; }

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

 private:
  struct Owner {
    std::uint32_t uid = 0;
    std::uint32_t gid = 0;
  };
  using Identity = std::pair<std::uint64_t, std::uint64_t>;  // device, inode

  enum class Verdict { goOn, shortWrite };
  [[nodiscard]] SysResult<Verdict> enter(FileWorkCall call);
  [[nodiscard]] int die();
  [[nodiscard]] SysResult<int> noteOpened(SysResult<int> fd);
  [[nodiscard]] SysResult<StatRecord> dressed(SysResult<StatRecord> record) const;
  [[nodiscard]] bool isInside(const std::string& path) const;
  // What is new is root's, whoever had its inode number before.
  void forgetOwner(const SysResult<StatRecord>& record);

  os::LinuxFileWork work_;
  const std::string root_;
  const bool ownsRoot_;
  std::map<Identity, Owner> owners_;
  std::set<int> open_;
  std::size_t mostOpen_ = 0;
  FileWorkFault fault_;
  std::vector<FileWorkCall> calls_;
  std::uint64_t counted_ = 0;
  bool fired_ = false;
  bool killed_ = false;
  UniqueFunction<void(FileWorkCall)> hook_;
  UniqueFunction<void()> killHook_;
};

}  // namespace quillmark::sim
