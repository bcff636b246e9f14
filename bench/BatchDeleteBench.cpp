// Deleting 500 snapshots of a real volume in one batch, from the request to the reply, against a bare loop that does for
// each what can't be left out: read the volume's list, destroy the snapshot, put a line on disk.
//
// Goal: within 1.5 times the bare loop, and the space back within a second of the reply. Needs root, loop devices, btrfs.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <set>

#include "base/HelperLog.h"
#include "platform/PlatformLog.h"
#include "platform/PropertyList.h"
#include "platform/linux/BtrfsCalls.h"
#include "platform/linux/DirectoryReader.h"
#include "platform/linux/FileWork.h"
#include "platform/linux/PowerSources.h"
#include "platform/linux/PropertyList.h"
#include "platform/linux/Random.h"
#include "platform/linux/SnapshotNames.h"
#include "platform/linux/ThreadIdentity.h"
#include "platform/linux/Users.h"
#include "platform/linux/VolumeAttributes.h"
#include "platform/sim/SimPlatform.h"
#include "service/HelperEnvironment.h"
#include "tests/platform_btrfs/BtrfsMachine.h"
#include "tests/service/DirectClient.h"
#include "wire/Json.h"

namespace quillmark {
namespace {

constexpr int snapshotCount = 500;
constexpr std::size_t heldBytes = std::size_t{100} << 20;  // by the snapshots alone

class NoLog final : public HelperLog, public PlatformLog {
 public:
  void log(PlatformLogType, std::string_view, std::string_view, std::string_view) override {}

 protected:
  void emit(LogLevel, std::string_view, CodeLocation) override {}
};

class NoListener final : public TransportListener {
 public:
  void resume(Accept) override {}
};

std::string freshDirectory() {
  std::string directory = "/tmp/quillmark-bench-XXXXXX";  // on a disk: appends have to be durable
  if (!::mkdtemp(directory.data())) std::abort();
  return directory;
}

class FullVolume final {
 public:
  FullVolume() {
    processes_.script(paths.diskutil, [this](const ProcessRequest&) { return diskutil(); });
    environment.start();
    const std::string place = machine.top + "/.quillmark/" + uuid;
    std::filesystem::create_directories(place);
    std::filesystem::permissions(machine.top + "/.quillmark", std::filesystem::perms::owner_all);
    std::filesystem::permissions(place, std::filesystem::perms::owner_all);
  }
  ~FullVolume() { std::filesystem::remove_all(directory); }

  // Snapshots that hold what the volume no longer does; nothing is left to do in the background.
  void fill() {
    const UniqueFd source(::open(machine.volume.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd place(::open((machine.top + "/.quillmark/" + uuid).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    machine.shell("head -c " + std::to_string(heldBytes) + " /dev/urandom >" + machine.volume + "/held");
    for (int i = 0; i < snapshotCount; ++i) {
      if (!os::btrfs::createSnapshot(place.get(), source.get(), nameOf(i))) std::abort();
    }
    machine.shell("rm " + machine.volume + "/held");
    if (!os::btrfs::commit(source.get())) std::abort();
    (void)environment.apfs.listSnapshots(info);  // warms the cache of XIDs
  }

  void deleteBare() {
    const UniqueFd top(::open(machine.top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd source(::open(machine.volume.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const UniqueFd file(::open((directory + "/bare.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    const std::string line(400, 'l');
    const auto parent = os::btrfs::subvolumeOf(source.get());
    for (int i = 0; i < snapshotCount; ++i) {
      const auto id = listBare(source.get(), parent->uuid, nameOf(i));
      if (!os::btrfs::destroySubvolume(top.get(), id)) std::abort();
      if (::write(file.get(), line.data(), line.size()) < 0 || ::fsync(file.get()) != 0) std::abort();
    }
    if (!os::btrfs::syncAndClean(source.get())) std::abort();
  }

  void deleteBatch() {
    std::vector<SnapshotDeleteSpec> specs;
    for (int i = 0; i < snapshotCount; ++i) specs.push_back({nameOf(i), false});
    const std::string text = encodeJson(specs);
    const RpcIncoming reply = client.call(DeleteSnapshots{{text, text.size()}, uuid});
    for (const auto& outcome : decodeJson<std::vector<SnapshotNameOutcome>>(reply.reply.valueJson.value())) {
      if (outcome.error || outcome.auditWarning) std::abort();
    }
  }

  [[nodiscard]] std::size_t freeBytes() const {
    struct statvfs status {};
    if (::statvfs(machine.top.c_str(), &status) != 0) std::abort();
    return status.f_bfree * status.f_frsize;
  }

  os::BtrfsMachine machine;
  const std::string directory = freshDirectory();
  const HostPaths paths = sim::hostPathsUnder(directory);
  os::LinuxRandom random;
  NoLog log;

 private:
  static std::string nameOf(int i) {
    return "com.harrowfern.Quillmark.auto.hourly.2026-03-01T12-00-00Z." + std::to_string(i);
  }

  static os::btrfs::SubvolumeId listBare(int source, const Uuid& parent, const std::string& name) {
    std::set<std::uint64_t> directories;
    os::btrfs::SubvolumeId found = 0;
    const auto read = os::btrfs::forEachSubvolume(source, [&](const auto& subvolume, const os::btrfs::Place& place) {
      if (subvolume.parentUuid == parent && place.name == name) found = subvolume.id;
      if (!directories.insert(place.directory).second || place.directory == os::btrfs::rootInode) return;
      if (!os::btrfs::directoryPath(source, place.parent, place.directory)) std::abort();
    });
    if (!read || found == 0) std::abort();
    return found;
  }

  // On btrfs a file ID is the XID.
  sim::SimProgram diskutil() {
    PropertyArray entries;
    for (const RawSnapshotEntry& snapshot : environment.apfs.listRawSnapshots(info)) {
      entries.push_back(PropertyList(PropertyDictionary{{"SnapshotName", PropertyList(snapshot.name)},
                                                        {"SnapshotXID", PropertyList(snapshot.fileID)}}));
    }
    return {.output = propertyLists_.write(
                PropertyList(PropertyDictionary{{"Snapshots", PropertyList(std::move(entries))}}))};
  }

  const std::string uuid = machine.uuidAt(machine.volume).text();
  os::LinuxFileWork fileWork_;
  os::LinuxVolumeAttributes attributes_;
  sim::SimProcesses processes_{machine.dispatch};
  os::LinuxPropertyLists propertyLists_;
  NoListener listener_;
  sim::SimPeerIdentities peers_;
  sim::SimThisProcess process_{1};
  os::LinuxUsers users_;
  os::LinuxPowerSources power_;
  os::LinuxDirectoryReader directories_;
  os::LinuxThreadIdentity threadIdentities_;
  HelperEnvironment environment{{.dispatch = machine.dispatch,
                                 .clock = machine.clock,
                                 .random = random,
                                 .posix = machine.posix,
                                 .fileWork = fileWork_,
                                 .snapshots = machine.calls,
                                 .attributes = attributes_,
                                 .disks = machine.disks,
                                 .processes = processes_,
                                 .propertyLists = propertyLists_,
                                 .listener = listener_,
                                 .peers = peers_,
                                 .log = log,
                                 .process = process_,
                                 .users = users_,
                                 .power = power_,
                                 .directories = directories_,
                                 .threadIdentities = threadIdentities_,
                                 .paths = paths,
                                 .bundle = {}},
                                log,
                                {}};
  const VolumeInfo info = environment.apfs.resolveVolume(uuid);
  DirectClient client{machine.dispatch, environment};
};

void BM_BatchDeleteAgainstBare(benchmark::State& state) {
  if (const std::string missing = os::whatIsMissing(); !missing.empty()) {
    state.SkipWithError(missing.c_str());
    return;
  }
  FullVolume volume;
  Clock& clock = volume.machine.clock;
  const auto secondsSince = [&](MonotonicTime from) {
    return std::chrono::duration<double>(clock.monotonic() - from).count();
  };
  const auto idle = [&] {
    sleepFor(volume.machine.dispatch, std::chrono::seconds(1));
    volume.machine.shell("sync");
  };
  std::vector<double> bare, batch, back;
  for (auto _ : state) {
    volume.fill();
    idle();
    MonotonicTime from = clock.monotonic();
    volume.deleteBare();
    bare.push_back(secondsSince(from));
    idle();
    volume.fill();
    idle();
    const std::size_t freeBefore = volume.freeBytes();
    from = clock.monotonic();
    volume.deleteBatch();
    batch.push_back(secondsSince(from));
    from = clock.monotonic();
    while (volume.freeBytes() < freeBefore + heldBytes && secondsSince(from) < 30) {
      sleepFor(volume.machine.dispatch, std::chrono::milliseconds(5));
    }
    back.push_back(secondsSince(from));
    idle();
  }
  const auto median = [](std::vector<double>& values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
  };
  const double bareMedian = median(bare), batchMedian = median(batch);
  state.counters["bare_ms"] = bareMedian * 1e3;
  state.counters["batch_ms"] = batchMedian * 1e3;
  state.counters["batch_delete_ratio"] = batchMedian / bareMedian;
  state.counters["space_back_s"] = *std::max_element(back.begin(), back.end());
}
BENCHMARK(BM_BatchDeleteAgainstBare)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillmark
