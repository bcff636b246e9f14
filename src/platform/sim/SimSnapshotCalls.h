// SimSnapshotCalls: the snapshot and mount calls of one process over the machine's simulated volumes.
// Ownership: borrows both, which must outlive it.
// Threads:   thread-safe; one OpenVolume serves one thread at a time.
#pragma once

#include "platform/SnapshotCalls.h"
#include "platform/clock.h"
#include "platform/sim/SimVolumes.h"

namespace quillmark::sim {

class SimSnapshotCalls final : public SnapshotCalls {
 public:
  SimSnapshotCalls(SimVolumes& volumes, Clock& clock) : volumes_(volumes), clock_(clock) {}

  SysResult<std::unique_ptr<OpenVolume>> open(const std::string& mountPoint, const VolumeUuid& expected) override;
  SysStatus fs_snapshot_create(OpenVolume& volume, const std::string& name) override;
  SysStatus fs_snapshot_delete(OpenVolume& volume, const std::string& name, Xid meant) override;
  SysResult<int> fs_snapshot_list(OpenVolume& volume, const AttributeList& attributes,
                                  std::span<std::byte> buffer) override;
  SysStatus fs_snapshot_mount(OpenVolume& volume, const std::string& directory, const std::string& name, Xid meant,
                              std::uint32_t mountFlags) override;
  SysStatus unmount(const std::string& path, bool force) override;
  SysResult<FileSystemStatus> statfs(const std::string& path) override;
  SysResult<std::vector<FileSystemStatus>> getmntinfo() override;
  SysResult<std::map<Xid, std::uint64_t>> changedSnapshots(OpenVolume& volume) override;
  SysResult<std::uint64_t> lastChange(const std::string& path) override;
  // A scripted failure stands for the time that passed.
  bool waitForSpace(const std::string& mountPoint, std::chrono::nanoseconds duration) override;

 private:
  SimVolumes& volumes_;
  Clock& clock_;
};

}  // namespace quillmark::sim
