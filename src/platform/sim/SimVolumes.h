// SimVolumes: the volumes of a simulated machine with their snapshots and mounts; what SimSnapshotCalls and SimDisks of
// every process on that machine look at, and a test changes behind their back.
// Ownership: outlives the processes that use it; so do snapshots and mounts.
// Threads:   thread-safe; the watcher of calls runs outside the lock and may wait.
// Invariant: XIDs ascend over all volumes and never return.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Date.h"
#include "base/FunctionRef.h"
#include "base/SysResult.h"
#include "base/UniqueFunction.h"
#include "base/Uuid.h"
#include "base/Xid.h"
#include "platform/Disks.h"
#include "platform/SnapshotCalls.h"
#include "platform/linux/Threads.h"
#include "platform/sim/SimTree.h"

namespace quillmark::sim {

struct SimSnapshot {
  std::string name;
  Xid xid;
  std::uint64_t fileId = 0;  // the XID unless a test says otherwise
  std::int64_t createdSeconds = 0;
  std::int64_t createdNanoseconds = 0;
  std::uint64_t ownBlocks = 0;   // come back when it is deleted, as soon as somebody waits for them
  SimTree tree = {};             // as the volume's was
  std::uint64_t lastChange = 0;  // since it was made
};

struct SimVolume {
  Uuid uuid;
  std::string mountPoint;
  DiskDescription description;  // what is told of it, which may lack or contradict the two above
  std::uint32_t mountFlags = 0;
  std::uint64_t blockSize = 4096;
  std::uint64_t blocks = 25'000'000;
  std::uint64_t availableBlocks = 20'000'000;
  std::vector<std::string> registryClasses = {"IOMedia", "IONVMeController"};
  std::uint64_t returningBlocks = 0;  // of deleted snapshots
  std::vector<SimSnapshot> snapshots;
  SimTree tree = {};
};
// An internal "Data" volume, as most tests want one.
[[nodiscard]] SimVolume makeSimVolume(const Uuid& uuid, const std::string& name = "Data",
                                      const std::string& mountPoint = "/Volumes/Data",
                                      const std::string& bsdName = "disk1s1");

enum class SimCall { open, create, remove, list, mount, unmount, statfs, waitForSpace };

class SimVolumes final {
 public:
  struct Mount {
    std::string directory;
    Uuid volume;
    std::string snapshot;
    Xid xid;
    std::uint32_t flags = 0;
    bool isBusy = false;
    std::string device = {};  // that it was mounted from
  };

  SimVolumes();

  void add(SimVolume volume);
  // Unmounted, or its disk gone: its snapshots stay for the day it comes back by add().
  void take(const Uuid& volume);
  // The same, but mounts of its snapshots stay and keep its file system busy.
  void takeButMounts(const Uuid& volume);
  // The volume as it stands; changes are taken over when the work returns. Aborts for an unknown one.
  void change(const Uuid& volume, FunctionRef<void(SimVolume&)> work);
  [[nodiscard]] std::vector<SimVolume> volumes();
  // Each as it stands, in the order of mounting, without a copy. The visitor must not come back here.
  void visit(FunctionRef<void(const SimVolume&)> visitor);

  // EEXIST for a name taken.
  [[nodiscard]] SysResult<Xid> addSnapshot(const Uuid& volume, const std::string& name, Date created);
  // ENOENT when there is none; EBUSY while it is mounted.
  [[nodiscard]] SysStatus removeSnapshot(const Uuid& volume, const std::string& name);
  [[nodiscard]] std::vector<SimSnapshot> snapshots(const Uuid& volume);

  [[nodiscard]] SysStatus mount(const Uuid& volume, const std::string& directory, const std::string& name,
                                std::uint32_t flags);
  [[nodiscard]] SysStatus unmount(const std::string& directory, bool force);
  [[nodiscard]] std::vector<Mount> mounts();
  // Somebody has a file open in the snapshot mounted there, or no longer.
  void setBusy(const std::string& directory, bool isBusy);

  // The space of deleted snapshots becomes free.
  void returnSpace(const std::string& mountPoint);

  // Told, outside the lock, of every volume and mounted snapshot that comes or goes, as long as he lives.
  using Observer = std::function<void(const DiskEvent&)>;
  void observe(std::weak_ptr<Observer> observer);
  // Tells observers what no change of these volumes shows.
  void announce(const DiskEvent& event);

  // What statfs gives for a path: of the longest mount point that contains it, "/" being one of no volume.
  [[nodiscard]] FileSystemStatus status(const std::string& path);

  struct PlacedTree {
    SimTree tree;
    std::string path;  // within the tree
    bool isSnapshot = false;
  };
  // Of the mount that holds the path.
  [[nodiscard]] std::optional<PlacedTree> treeAt(const std::string& path);

  // The next calls of this kind fail so.
  void failNext(SimCall call, int error, int times = 1);
  // Called at the start of each call with its subject (a path or a snapshot's name): to wait, to change the machine
  // under the caller, to count.
  void watchCalls(UniqueFunction<void(SimCall, const std::string&)> watcher);
  // For the backends: tells the watcher, then answers the scripted failure.
  [[nodiscard]] SysStatus begin(SimCall call, const std::string& subject);

 private:
  [[nodiscard]] SimVolume* find(const Uuid& volume) REQUIRES(mutex_);
  [[nodiscard]] DiskEvent removeVolume(const Uuid& volume) REQUIRES(mutex_);

  os::NativeMutex mutex_;
  std::vector<SimVolume> volumes_ GUARDED_BY(mutex_);  // in the order of mounting
  std::map<Uuid, std::vector<SimSnapshot>> unmounted_ GUARDED_BY(mutex_);
  std::vector<Mount> mounts_ GUARDED_BY(mutex_);
  std::vector<std::weak_ptr<Observer>> observers_ GUARDED_BY(mutex_);
  std::map<SimCall, std::deque<int>> failures_ GUARDED_BY(mutex_);
  std::shared_ptr<UniqueFunction<void(SimCall, const std::string&)>> watcher_ GUARDED_BY(mutex_);
  std::uint64_t transaction_ GUARDED_BY(mutex_) = 100;
  std::uint64_t nextId_ GUARDED_BY(mutex_) = 256;
};

}  // namespace quillmark::sim
