// SimPosix: the file calls on a temporary tree of its own, under a plan of faults, with a memory of what was synced.
// Paths are real ones below root(): whatever else reads files finds them there. Outside of it nothing exists but the
// directories that lead to it. Owners are kept beside the files, so that no test needs to be root.
// Ownership: owns the tree and every descriptor still open; both go with it. Borrows the clock.
// Threads:   one at a time, as the simulator runs.
#pragma once

#include <map>
#include <memory>

#include "base/UniqueFunction.h"
#include "platform/clock.h"
#include "platform/linux/Posix.h"
#include "platform/sim/FaultPlan.h"
#include "platform/sim/SimAttributeDisk.h"
#include "platform/sim/SimPosixDurability.h"

namespace quillmark::sim {

class SimPosix final : public Posix {
 public:
  // With a clock, files bear its times; else the machine's.
  explicit SimPosix(Clock* clock = nullptr);
  ~SimPosix() override;

  [[nodiscard]] const std::string& root() const { return root_; }

  // Starts counting anew.
  void setPlan(FaultPlan plan);
  // The calls counted so far, close() not among them: nobody can tell whether it failed.
  [[nodiscard]] std::uint64_t calls() const { return calls_; }
  [[nodiscard]] bool faultFired() const { return fired_; }
  // Ends the life at once, without an exception; should it return, the call answers EIO.
  void onKill(UniqueFunction<void()> hook) { killHook_ = std::move(hook); }
  // After this every call answers EIO and has no effect.
  void kill() { killed_ = true; }
  // For calls that another facility makes on the same disks: counts it, and fails as the plan has it.
  [[nodiscard]] SysStatus count(PosixCall call);
  // Survives what the files survive.
  [[nodiscard]] SimAttributeDisk& attributes() { return attributes_; }

  // What the next life finds: after a kill everything, synced or not, ...
  [[nodiscard]] std::unique_ptr<SimPosix> copyForSuccessor(Clock* clock = nullptr);
  // ... after a power cut what was synced and, by the seed, any part of what wasn't.
  [[nodiscard]] std::unique_ptr<SimPosix> powerCut(std::uint64_t seed, Clock* clock = nullptr);
  // Everything below root() counts as synced, also what was written past this object.
  void syncEverything();

  SysResult<int> open(const std::string& path, OpenFlags flags) override;
  void close(int fd) override;
  SysResult<std::size_t> read(int fd, std::span<std::byte> into) override;
  SysResult<std::size_t> pread(int fd, std::span<std::byte> into, std::uint64_t offset) override;
  SysResult<std::size_t> write(int fd, std::string_view bytes) override;
  SysStatus fsync(int fd) override;
  SysStatus fchmod(int fd, std::uint32_t mode) override;
  SysStatus fchown(int fd, std::uint32_t uid, std::uint32_t gid) override;
  SysStatus ftruncate(int fd, std::int64_t size) override;
  SysResult<FileStatus> fstat(int fd) override;
  SysStatus tryLockFile(int fd) override;

  SysResult<FileStatus> lstat(const std::string& path) override;
  SysStatus mkdir(const std::string& path, std::uint32_t mode) override;
  SysStatus rmdir(const std::string& path) override;
  SysStatus unlink(const std::string& path) override;
  SysStatus rename(const std::string& from, const std::string& to) override;
  SysStatus chmod(const std::string& path, std::uint32_t mode) override;
  SysStatus chown(const std::string& path, std::uint32_t uid, std::uint32_t gid) override;
  SysResult<std::vector<std::string>> list(const std::string& path) override;

 private:
  friend class SqliteFiles;  // SQLite keeps files of its own on the same disk
  enum class Verdict { goOn, shortWrite };

  // Counts the call and lets the plan decide; the errno of a call that must not happen.
  [[nodiscard]] SysResult<Verdict> enter(PosixCall call);
  [[nodiscard]] int die();
  // The model's path; nothing for what is outside the tree.
  [[nodiscard]] std::optional<std::string> inside(const std::string& path) const;
  [[nodiscard]] SimNode::Ref nodeAt(const std::string& path);
  [[nodiscard]] SimNode::Ref nodeOf(int fd) const;
  [[nodiscard]] Date now();
  void touch(const SimNode::Ref& node, bool contents);
  [[nodiscard]] SimNode::State stateAt(const std::string& relative);
  [[nodiscard]] FileStatus dressed(FileStatus facts, const SimNode::Ref& node) const;
  void adoptStrangers();
  [[nodiscard]] std::string real(const std::string& relative) const;

  os::LinuxPosix files_;
  Clock* const clock_;
  const std::string root_;
  SimDurability durability_;
  SimAttributeDisk attributes_;
  std::map<int, SimNode::Ref> open_;  // null for a directory outside
  FaultPlan plan_;
  std::uint64_t calls_ = 0;
  std::uint64_t counted_ = 0;
  bool fired_ = false;
  bool killed_ = false;
  UniqueFunction<void()> killHook_;

  SimPosix(Clock* clock, const SimDurability& durability, SimAttributeDisk attributes);
};

}  // namespace quillmark::sim
