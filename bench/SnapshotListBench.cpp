// Listing 1,000 snapshots of a real volume through all layers, against a bare loop that reads the same root items and
// resolves the same directories.
//
// Goal: within 3 times the bare loop, and no process started while the cache is warm. Needs root, loop devices and btrfs.
#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <algorithm>
#include <set>

#include "platform/Process.h"
#include "platform/linux/BtrfsCalls.h"
#include "platform/linux/PropertyList.h"
#include "platform/linux/Random.h"
#include "platform/sim/SimPlatformLog.h"
#include "snapshots/APFSManager.h"
#include "snapshots/SnapshotXIDResolutionCache.h"
#include "tests/platform_btrfs/BtrfsMachine.h"

namespace quillmark {
namespace {

constexpr int snapshotCount = 1000;

// There is nothing to start while the cache is warm.
class NoProcesses final : public Processes {
 public:
  std::unique_ptr<ChildProcess> prepare(ProcessRequest) override { std::abort(); }
};

struct ListedVolume {
  ListedVolume() {
    const UniqueFd source(::open(machine.volume.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    (void)apfs.createSnapshot(volume, "first", SnapshotNameInfo::Kind::manual(), machine.clock.now());
    const std::string place = machine.top + "/.quillmark/" + volume.uuid;
    const UniqueFd directory(::open(place.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (int i = 1; i < snapshotCount; ++i) {
      const std::string name = "com.harrowfern.Quillmark.auto.hourly.2026-03-01T12-00-00Z." + std::to_string(i);
      if (!os::btrfs::createSnapshot(directory.get(), source.get(), name)) std::abort();
    }
    // On btrfs a file ID is the XID, so that the cache can be warmed without diskutil.
    const auto entries = apfs.listRawSnapshots(volume);
    std::vector<Xid> xids;
    for (const RawSnapshotEntry& entry : entries) xids.push_back(Xid{entry.fileID});
    SnapshotXIDResolutionCache(machine.dispatch, machine.posix, random, log, paths).store(volume.uuid, entries, xids);
  }

  void bare() {
    const UniqueFd source(::open(machine.volume.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::set<std::uint64_t> directories;
    int count = 0;
    const auto read = os::btrfs::forEachSubvolume(source.get(), [&](const auto&, const os::btrfs::Place& place) {
      ++count;
      if (!directories.insert(place.directory).second || place.directory == os::btrfs::rootInode) return;
      if (!os::btrfs::directoryPath(source.get(), place.parent, place.directory)) std::abort();
    });
    if (!read || count != snapshotCount + 1) std::abort();
  }

  void listed() {
    if (apfs.listSnapshots(volume).size() != snapshotCount) std::abort();
  }

  os::BtrfsMachine machine;
  os::LinuxRandom random;
  os::LinuxPropertyLists propertyLists;
  sim::SimPlatformLog log;
  NoProcesses processes;
  HostPaths paths{.stateDirectory = machine.root + "/state"};
  SnapshotIdentity identity{machine.dispatch, processes, propertyLists, machine.posix,
                            random,           log,       paths,         SnapshotIdentity::FileIds::areXids};
  SnapshotServices services{machine.calls, machine.disks, machine.posix, log, paths, identity, {}};
  APFSManager apfs{services, "bench"};
  VolumeInfo volume = apfs.resolveVolume(machine.uuidAt(machine.volume).text());
};

void BM_ListSnapshotsAgainstBare(benchmark::State& state) {
  if (const std::string missing = os::whatIsMissing(); !missing.empty()) {
    state.SkipWithError(missing.c_str());
    return;
  }
  ListedVolume volume;
  const auto seconds = [&](auto work) {
    const MonotonicTime from = volume.machine.clock.monotonic();
    work();
    return std::chrono::duration<double>(volume.machine.clock.monotonic() - from).count();
  };
  std::vector<double> bare, listed;
  for (auto _ : state) {
    bare.push_back(seconds([&] { volume.bare(); }));
    listed.push_back(seconds([&] { volume.listed(); }));
  }
  const auto median = [](std::vector<double>& values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
  };
  const double bareMedian = median(bare), listedMedian = median(listed);
  state.counters["bare_ms"] = bareMedian * 1e3;
  state.counters["listed_ms"] = listedMedian * 1e3;
  state.counters["list_ratio"] = listedMedian / bareMedian;
}
BENCHMARK(BM_ListSnapshotsAgainstBare)->Iterations(51)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillmark
