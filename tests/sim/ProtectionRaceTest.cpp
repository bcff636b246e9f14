// Clients that delete, protect and unprotect the same snapshots, over the real handlers and stores, on both backends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <numeric>

#include "base/HelperLog.h"
#include "history/SnapshotHistoryManager.h"
#include "platform/Files.h"
#include "platform/PlatformLog.h"
#include "platform/Transport.h"
#include "platform/VolumeAttributes.h"
#include "platform/linux/DirectoryReader.h"
#include "platform/linux/FileWork.h"
#include "platform/linux/Posix.h"
#include "platform/linux/PropertyList.h"
#include "platform/random.h"
#include "platform/sim/SimPlatform.h"
#include "service/HelperEnvironment.h"
#include "tests/platform/DispatchBackends.h"
#include "tests/service/DirectClient.h"
#include "tests/snapshots/SimDiskutil.h"
#include "wire/Commands.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

const Uuid volumeUuid = *Uuid::parse("00112233-4455-6677-8899-aabbccddeeff");

// SplitMix64, drawn by anybody.
class SeededRandom final : public Random {
 public:
  explicit SeededRandom(std::uint64_t seed) : state_(seed) {}
  std::uint64_t next() override {
    std::uint64_t z = state_ += 0x9E3779B97F4A7C15;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return z ^ (z >> 31);
  }

 private:
  std::atomic<std::uint64_t> state_;
};

// One volume's attributes, and what each deletion finds in them at its very moment.
class Witness final : public VolumeAttributes {
 public:
  Witness(sim::SimVolumes& volumes, const std::string& localStore) : volumes_(volumes), localStore_(localStore) {}

  SysResult<std::unique_ptr<OpenVolumeAttributes>> open(const std::string&, const VolumeUuid&) override {
    return std::unique_ptr<OpenVolumeAttributes>(std::make_unique<Open>(*this));
  }

  SysStatus remove(const Uuid& volume, const std::string& name, Xid xid) {
    os::NativeLock lock(mutex_);
    const SysStatus removed = volumes_.removeSnapshot(volume, name);
    if (removed && isProtected(xid)) ++deletedThoughProtected_;
    return removed;
  }
  [[nodiscard]] int deletedThoughProtected() {
    os::NativeLock lock(mutex_);
    return deletedThoughProtected_;
  }
  // From here on they can't be changed, and the store's file serves.
  void refuseChanges() {
    os::NativeLock lock(mutex_);
    refuses_ = true;
  }

 private:
  class Open final : public OpenVolumeAttributes {
   public:
    explicit Open(Witness& witness) : witness_(witness) {}
    SysResult<std::size_t> size(const std::string& name) override {
      const auto value = read(name);
      if (!value) return Errno{value.error()};
      return value->size();
    }
    SysResult<std::string> read(const std::string& name) override {
      os::NativeLock lock(witness_.mutex_);
      const auto found = witness_.values_.find(name);
      if (found == witness_.values_.end()) return Errno{ENODATA};
      return found->second;
    }
    SysStatus write(const std::string& name, std::string_view value) override {
      os::NativeLock lock(witness_.mutex_);
      if (witness_.refuses_) return Errno{ENOTSUP};
      witness_.values_[name] = value;
      return {};
    }
    SysStatus remove(const std::string& name) override {
      os::NativeLock lock(witness_.mutex_);
      return witness_.values_.erase(name) > 0 ? SysStatus() : Errno{ENODATA};
    }

   private:
    Witness& witness_;
  };

  // XIDs have one length here, so that none is part of another.
  [[nodiscard]] bool isProtected(Xid xid) REQUIRES(mutex_) {
    const std::string number = std::to_string(xid.value);
    const auto value = values_.find("com.harrowfern.quillmark.protected-xids");
    if (value != values_.end() && value->second.find(number) != std::string::npos) return true;
    os::LinuxPosix posix;
    const auto file = readFile(posix, localStore_);
    return file && file->find(number) != std::string::npos;
  }

  sim::SimVolumes& volumes_;
  const std::string localStore_;
  os::NativeMutex mutex_;
  std::map<std::string, std::string> values_ GUARDED_BY(mutex_);
  bool refuses_ GUARDED_BY(mutex_) = false;
  int deletedThoughProtected_ GUARDED_BY(mutex_) = 0;
};

// Simulated calls whose deletions happen under the witness's eyes.
class WitnessedCalls final : public SnapshotCalls {
 public:
  WitnessedCalls(sim::SimVolumes& volumes, Clock& clock, Witness& witness)
      : calls_(volumes, clock), witness_(witness) {}

  SysResult<std::unique_ptr<OpenVolume>> open(const std::string& mountPoint, const VolumeUuid& expected) override {
    return calls_.open(mountPoint, expected);
  }
  SysStatus fs_snapshot_create(OpenVolume& volume, const std::string& name) override {
    return calls_.fs_snapshot_create(volume, name);
  }
  SysStatus fs_snapshot_delete(OpenVolume&, const std::string& name, Xid meant) override {
    return witness_.remove(volumeUuid, name, meant);
  }
  SysResult<int> fs_snapshot_list(OpenVolume& volume, const AttributeList& attributes,
                                  std::span<std::byte> buffer) override {
    return calls_.fs_snapshot_list(volume, attributes, buffer);
  }
  SysStatus fs_snapshot_mount(OpenVolume& volume, const std::string& directory, const std::string& name, Xid meant,
                              std::uint32_t flags) override {
    return calls_.fs_snapshot_mount(volume, directory, name, meant, flags);
  }
  SysStatus unmount(const std::string& path, bool force) override { return calls_.unmount(path, force); }
  SysResult<FileSystemStatus> statfs(const std::string& path) override { return calls_.statfs(path); }
  SysResult<std::vector<FileSystemStatus>> getmntinfo() override { return calls_.getmntinfo(); }

 private:
  sim::SimSnapshotCalls calls_;
  Witness& witness_;
};

class SilentLog final : public HelperLog, public PlatformLog {
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
  std::string path = "/tmp/quillmark-race-XXXXXX";
  if (!::mkdtemp(path.data())) std::abort();
  return path;
}

// The service's environment over the given threads and one simulated volume.
class RaceMachine final {
 public:
  RaceMachine(Dispatch& dispatch, std::uint64_t seed, int snapshots) : dispatch_(dispatch), random(seed) {
    volumes_.add(sim::makeSimVolume(volumeUuid));
    for (int i = 0; i < snapshots; ++i) {
      names.push_back("com.harrowfern.Quillmark.manual." + std::to_string(i));
      (void)volumes_.addSnapshot(volumeUuid, names.back(), dispatch.clock().now());
    }
    processes_.script(paths_.diskutil, [this](const ProcessRequest& request) {
      return sim::SimProgram{.output =
                                 snapshotsAsDiskutilListsThem(volumes_, propertyLists_, request.arguments.back())};
    });
    environment.start();
  }
  // What still runs for clients that are gone runs out first.
  ~RaceMachine() {
    (void)environment.shutdown.requestQuit();
    gone_->wait();
    if (environment.history) environment.history->waitForWork();
    std::filesystem::remove_all(root_);
  }

  [[nodiscard]] std::size_t left() { return volumes_.snapshots(volumeUuid).size(); }

 private:
  Dispatch& dispatch_;
  const std::string root_ = freshDirectory();
  const HostPaths paths_ = sim::hostPathsUnder(root_);
  sim::SimVolumes volumes_;

 public:
  SeededRandom random;
  Witness witness{volumes_, paths_.state("protected.json")};
  std::vector<std::string> names;

 private:
  WitnessedCalls calls_{volumes_, dispatch_.clock(), witness};
  os::LinuxPosix posix_;
  os::LinuxFileWork fileWork_;
  sim::SimDisks disks_{volumes_};
  sim::SimProcesses processes_{dispatch_};
  os::LinuxPropertyLists propertyLists_;
  NoListener listener_;
  sim::SimPeerIdentities peers_;
  SilentLog log_;
  sim::SimThisProcess process_{1};
  sim::SimUsers users_;
  sim::SimThreadIdentity threadIdentities_{dispatch_};
  sim::SimPowerSources power_;
  os::LinuxDirectoryReader directories_;
  const std::shared_ptr<Semaphore> gone_ = std::make_shared<Semaphore>(dispatch_);

 public:
  HelperEnvironment environment{{.dispatch = dispatch_,
                                 .clock = dispatch_.clock(),
                                 .random = random,
                                 .posix = posix_,
                                 .fileWork = fileWork_,
                                 .snapshots = calls_,
                                 .attributes = witness,
                                 .disks = disks_,
                                 .processes = processes_,
                                 .propertyLists = propertyLists_,
                                 .listener = listener_,
                                 .peers = peers_,
                                 .log = log_,
                                 .process = process_,
                                 .users = users_,
                                 .power = power_,
                                 .directories = directories_,
                                 .threadIdentities = threadIdentities_,
                                 .paths = paths_,
                                 .bundle = {}},
                                log_,
                                {.exitProcess = [gone = gone_] { gone->signal(); }, .healthNotes = {}}};
};

// 0 for none.
long codeOf(const RpcIncoming& reply) { return reply.reply.error ? reply.reply.error->code() : 0; }

struct Counts {
  int deleted = 0, refused = 0, changed = 0, other = 0;
};

// One client's part: a drawn action on a drawn snapshot, again and again.
Counts race(Dispatch& dispatch, RaceMachine& machine, int actions) {
  constexpr long protectedSnapshot = static_cast<long>(QuillmarkErrorCode::protectedSnapshot);
  DirectClient client(dispatch, machine.environment);
  const std::string uuid = volumeUuid.lower();
  Counts counts;
  for (int i = 0; i < actions; ++i) {
    const std::uint64_t draw = machine.random.next();
    const std::string& name = machine.names[draw / 16 % machine.names.size()];
    const auto drawn = draw % 16;
    if (drawn < 4) {
      const long code = codeOf(client.call(DeleteSnapshot{name, uuid, false}));
      ++(code == 0 ? counts.deleted : code == protectedSnapshot ? counts.refused : counts.other);
    } else {
      ++(codeOf(client.call(SetProtected{name, uuid, drawn < 11})) == 0 ? counts.changed : counts.other);
    }
  }
  return counts;
}

enum class Home { attribute, file };

// Goal:   no snapshot is deleted that was protected at the moment of its deletion.
// Method: a witness below the service looks at what is protected within each deletion, which none of its clients forces.
// Gives how many were deleted.
int runRace(contract::DispatchBackend& backend, std::uint64_t seed, Home home, int clients, int actions) {
  int deleted = 0;
  backend.run([&] {
    Dispatch& dispatch = backend.dispatch();
    RaceMachine machine(dispatch, seed, 12);
    if (home == Home::file) machine.witness.refuseChanges();
    Guarded<Counts> all(dispatch);
    Group racing(dispatch);
    const auto queue = dispatch.makeQueue({.label = "clients", .concurrent = true});
    for (int i = 0; i < clients; ++i) {
      racing.enter();
      queue->async([&] {
        const Counts mine = race(dispatch, machine, actions);
        all.with([&](Counts& counts) {
          counts.deleted += mine.deleted;
          counts.refused += mine.refused;
          counts.changed += mine.changed;
        });
        racing.leave();
      });
    }
    racing.wait();
    EXPECT_EQ(machine.witness.deletedThoughProtected(), 0) << "seed " << seed;
    const Counts counts = all.with([](const Counts& total) { return total; });
    deleted = counts.deleted;
    EXPECT_GT(counts.changed, 0) << "seed " << seed;
    EXPECT_EQ(machine.left() + static_cast<std::size_t>(counts.deleted), machine.names.size()) << "seed " << seed;
  });
  return deleted;
}

#if !defined(__SANITIZE_THREAD__)  // it can't follow fibers
TEST(ProtectionRace, isNeverLostInTheSimulator) {
  const std::uint64_t seeds = std::getenv("QUILLMARK_LONG") ? 2000 : 30;
  std::uint64_t deleted = 0;
  for (std::uint64_t seed = 1; seed <= seeds; ++seed) {
    contract::SimulatedBackend backend(seed);
    deleted += static_cast<std::uint64_t>(runRace(backend, seed, seed % 2 == 0 ? Home::attribute : Home::file, 4, 12));
  }
  EXPECT_GT(deleted, seeds);
}
#endif

TEST(ProtectionRace, isNeverLostOnRealThreads) {
  for (const Home home : {Home::attribute, Home::file}) {
    contract::LinuxBackend backend;
    EXPECT_GT(runRace(backend, 7, home, 6, 60), 0);
  }
}

// The witness isn't blind: a forced deletion of a protected snapshot is one that it sees, in either home.
TEST(ProtectionRace, wouldBeSeenIfItWereLost) {
  for (const Home home : {Home::attribute, Home::file}) {
    contract::LinuxBackend backend;
    RaceMachine machine(backend.dispatch(), 1, 2);
    if (home == Home::file) machine.witness.refuseChanges();
    DirectClient client(backend.dispatch(), machine.environment);
    EXPECT_EQ(codeOf(client.call(SetProtected{machine.names[0], volumeUuid.lower(), true})), 0);
    EXPECT_EQ(codeOf(client.call(DeleteSnapshot{machine.names[1], volumeUuid.lower(), true})), 0);
    EXPECT_EQ(machine.witness.deletedThoughProtected(), 0);
    EXPECT_EQ(codeOf(client.call(DeleteSnapshot{machine.names[0], volumeUuid.lower(), true})), 0);
    EXPECT_EQ(machine.witness.deletedThoughProtected(), 1);
  }
}

}  // namespace
}  // namespace quillmark
