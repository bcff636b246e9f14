// PipelineMachine: the whole history of a simulated machine with a volume "Data", one life of the helper after the other.
//
//   PipelineMachine machine;
//   machine.write("/letter", 120);
//   const Xid xid = machine.take();                  // a snapshot, and the history is told of it
//   machine.settle();
//   EXPECT_EQ(machine.ready(), (Xids{xid}));
//   machine.restart();
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "ChainInvariants.h"
#include "HistoryMachine.h"
#include "history/MemoryReturn.h"
#include "history/SnapshotHistoryManager.h"
#include "journal/AuditTrail.h"
#include "platform/Files.h"
#include "platform/sim/Fiber.h"
#include "platform/sim/SimPlatform.h"
#include "platform/sim/Simulation.h"
#include "snapshots/APFSManager.h"
#include "snapshots/MountNames.h"
#include "snapshots/MountPinRegistry.h"
#include "snapshots/VolumeService.h"
#include "tests/snapshots/SimDiskutil.h"

namespace quillmark {

using namespace std::chrono_literals;
using Xids = std::set<Xid>;

inline void PrintTo(Xid xid, std::ostream* out) { *out << xid.value; }

class PipelineTrail final : public AuditTrail {
 public:
  std::optional<Error> append(const HelperEvent& event) override {
    events.push_back(event);
    return std::nullopt;
  }
  std::vector<HelperEvent> events;
};

class PipelineCaches final : public HistoryCaches {
 public:
  void purge(const VolumeUuid& volume) override { purged.push_back(volume.text()); }
  void purge(const VolumeUuid&, const std::set<Xid>& xids) override { dropped.insert(xids.begin(), xids.end()); }
  void purgeAll() override { purged.push_back("all"); }
  std::vector<std::string> purged;
  Xids dropped;
};

// One life of the helper, with what the history stands on.
struct PipelineHelper {
  PipelineHelper(sim::Simulation& simulation, sim::SimVolumes& volumes, std::unique_ptr<sim::SimPosix> files)
      : life(simulation.startLife("helper")), sim(life, volumes, {.files = std::move(files)}), log(life.dispatch()) {
    for (const std::string& directory : {sim.paths().userMountRoot, sim.paths().privateMountRoot}) {
      createDirectories(sim.files(), directory, 0755);
    }
    sim.processes().script(sim.paths().diskutil, [this, &volumes](const ProcessRequest& request) {
      return sim::SimProgram{
          .output = snapshotsAsDiskutilListsThem(volumes, platform.propertyLists, request.arguments.back())};
    });
  }

  sim::Life& life;
  sim::SimPlatform sim;
  const Platform platform = sim.platform();
  HistoryLog log;
  PipelineTrail audit;
  PipelineCaches caches;
  MemoryReturn memory{life.dispatch(), sim.process()};
  MountPinRegistry pins{life.dispatch(), life.random()};
  SnapshotIdentity identity{life.dispatch(),
                            platform.processes,
                            platform.propertyLists,
                            platform.posix,
                            life.random(),
                            sim.log(),
                            sim.paths(),
                            SnapshotIdentity::FileIds::areXids};
  SnapshotServices managed{platform.snapshots, platform.disks, platform.posix, sim.log(), sim.paths(), identity, {}};
  APFSManager apfs{managed, "history"};
  VolumeService inventory{life.dispatch(),    platform.disks,         platform.snapshots,
                          platform.processes, platform.propertyLists, sim.paths()};
  std::shared_ptr<SnapshotHistoryManager> history;
};

class PipelineMachine {
 public:
  explicit PipelineMachine(sim::SimulationOptions options = {}) : simulation(std::move(options)) {
    volumes.add(sim::makeSimVolume(uuid));
    start(nullptr);
  }
  ~PipelineMachine() {
    for (PipelineHelper* helper : helpers) {
      if (!helper->life.isAlive()) {
        sim::loseOnPurpose(helper);  // frozen fibers hold it
        continue;
      }
      EXPECT_TRUE(simulation.run(helper->life, [&] { helper->history.reset(); }));
      helper->life.end();
      delete helper;
    }
  }
  PipelineMachine(const PipelineMachine&) = delete;
  PipelineMachine& operator=(const PipelineMachine&) = delete;

  // As a helper comes up: sweeps old mounts, opens the store. False when it was killed on the way.
  bool start(std::unique_ptr<sim::SimPosix> files, sim::FaultPlan plan = {}) {
    // Lives stay until the machine goes: a killed one is never unwound.
    helpers.push_back(new PipelineHelper(simulation, volumes, std::move(files)));
    if (helpers.size() > 1) moveMounts(helpers[helpers.size() - 2]->sim.files().root(), here().sim.files().root());
    here().sim.files().setPlan(plan);
    return simulation.run(here().life, [&] {
      here().apfs.cleanStaleIndexMounts({});
      here().history = SnapshotHistoryManager::make({.dispatch = here().life.dispatch(),
                                                     .random = here().life.random(),
                                                     .posix = here().platform.posix,
                                                     .calls = here().platform.snapshots,
                                                     .disks = here().platform.disks,
                                                     .directories = here().platform.directories,
                                                     .power = here().platform.power,
                                                     .platformLog = here().platform.log,
                                                     .log = here().log,
                                                     .paths = here().sim.paths(),
                                                     .apfs = here().apfs,
                                                     .volumes = here().inventory,
                                                     .mountPins = here().pins,
                                                     .audit = here().audit,
                                                     .caches = &here().caches,
                                                     .memory = &here().memory});
      here().history->install(
          {.progressReporter = [this](const ActiveIndexProgress& progress) { pushes.push_back(progress); },
           .indexingMode = [this] { return mode; },
           .volumeTracked = [this](const std::string& volume) { return !untracked.contains(volume); },
           .indexOnBattery = [this] { return indexOnBattery; },
           .exclusionRules = [this](const std::string&) { return rules; },
           .restoreCleanupPass = [this] { ++restoreCleanups; },
           .pendingRestoreCleanups = [this] { return pendingCleanups; }});
    });
  }
  // The helper is killed; the next one comes up over what is on disk.
  void restart() {
    here().life.kill();
    ASSERT_TRUE(start(here().sim.files().copyForSuccessor()));
  }

  // Runs the body as the helper would, on a fiber, and what becomes runnable by it.
  void run(FunctionRef<void()> body) { ASSERT_TRUE(simulation.run(here().life, body)); }
  // Lets all that waits for no timer come to its end.
  void settle() { simulation.runFor(5s); }

  // --- the volume ---
  void write(const std::string& path, std::int64_t size, std::optional<Uuid> volume = {}) {
    volumes.change(volume.value_or(uuid), [&](sim::SimVolume& changed) { changed.tree.write(path, size); });
  }
  // A snapshot that the history isn't told of, named by its kind and number.
  Xid add(const std::string& prefix = std::string(SnapshotNameInfo::prefix) + "manual.",
          std::optional<Uuid> volume = {}) {
    return *volumes.addSnapshot(volume.value_or(uuid), prefix + std::to_string(++snapshotsMade),
                                here().life.clock().now());
  }
  Xid take(Forced forced = Forced::no) {
    const Xid xid = add();
    tell(xid, forced);
    return xid;
  }
  // Of 3,000 files, read by their directories, slowly; it is under way on return.
  Xid beginSlowScan() {
    for (int i = 0; i < 3000; ++i) write("/f" + std::to_string(i), 1);
    here().sim.directories().setOffersWhole(false);
    here().sim.directories().watchCalls([this](sim::DirectoryCall call, const std::string&) {
      if (call == sim::DirectoryCall::readRecords) here().life.delay(100ms);
    });
    const Xid xid = take();
    simulation.runFor(1s);
    return xid;
  }
  void tell(Xid xid, Forced forced = Forced::no) {
    run([&] { history().snapshotCreated(volume(), record(xid), forced); });
  }
  // Writes something and takes a snapshot of it, n times.
  std::vector<Xid> takeSeveral(int n) {
    std::vector<Xid> xids;
    for (int i = 0; i < n; ++i) {
      write("/home/file" + std::to_string(snapshotsMade), 10 + snapshotsMade);
      xids.push_back(take());
      settle();
    }
    return xids;
  }
  void destroy(Xid xid, std::optional<Uuid> volume = {}) {
    ASSERT_TRUE(volumes.removeSnapshot(volume.value_or(uuid), nameOf(xid)));
  }
  [[nodiscard]] std::string nameOf(Xid xid) { return record(xid).name; }
  [[nodiscard]] SnapshotRecord record(Xid xid) {
    for (const sim::SimVolume& mounted : volumes.volumes()) {
      for (const sim::SimSnapshot& snapshot : mounted.snapshots) {
        if (snapshot.xid == xid) {
          return {.name = snapshot.name,
                  .xid = xid,
                  .createdAt = Date::from1970(static_cast<double>(snapshot.createdSeconds))};
        }
      }
    }
    return {};
  }
  [[nodiscard]] VolumeInfo volume() { return here().apfs.resolveVolume(uuid.upper()); }
  [[nodiscard]] std::string indexPath(Xid xid) {
    return here().sim.paths().privateMountRoot + "/.index-" + snapshotMountName("Data", uuid.lower()) + "-" +
           std::to_string(xid.value);
  }
  [[nodiscard]] std::string userPath(Xid xid) { return userMountPath(here().sim.paths(), volume(), xid); }
  [[nodiscard]] std::vector<std::string> mountPoints() {
    std::vector<std::string> paths;
    for (const auto& mount : volumes.mounts()) paths.push_back(mount.directory);
    return paths;
  }

  // --- the history ---
  [[nodiscard]] PipelineHelper& here() { return *helpers.back(); }
  [[nodiscard]] SnapshotHistoryManager& history() { return *here().history; }
  [[nodiscard]] SnapshotHistoryStore& store() { return history().store(); }
  [[nodiscard]] Xids ready(std::optional<VolumeUuid> volume = {}) {
    Xids xids;
    run([&] {
      for (const auto& snapshot : store().readySnapshots(volume.value_or(key))) xids.insert(snapshot.xid);
    });
    return xids;
  }
  [[nodiscard]] Xids pending(std::optional<VolumeUuid> volume = {}) {
    Xids xids;
    run([&] {
      for (const auto& snapshot : store().pendingSnapshots(volume.value_or(key))) xids.insert(snapshot.xid);
    });
    return xids;
  }
  [[nodiscard]] std::optional<HistoryVolumeState> state() {
    std::optional<HistoryVolumeState> found;
    run([&] {
      if (const auto row = store().volumeState(key)) found = row->state;
    });
    return found;
  }
  // What is wrong: a ready snapshot that isn't remembered as it is, or a chain that doesn't hold.
  [[nodiscard]] std::string complaint() {
    std::string found;
    run([&] {
      found = brokenInvariant(store(), here().life.dispatch());
      for (const sim::SimSnapshot& snapshot : volumes.snapshots(uuid)) {
        if (!store().isReady(key, snapshot.xid)) continue;
        if (treeOf(snapshot.tree) != remembered(snapshot.xid)) found += "another tree than that of " + snapshot.name;
      }
    });
    return found;
  }
  [[nodiscard]] HelperSubsystemHealth health() {
    HelperSubsystemHealth found;
    run([&] { found = history().health(); });
    return found;
  }
  [[nodiscard]] std::vector<std::string> logged(const std::string& containing = "") {
    std::vector<std::string> found;
    for (const std::string& line : here().log.lines()) {
      if (line.find(containing) != std::string::npos) found.push_back(line);
    }
    return found;
  }
  // The description of the error that the work throws.
  [[nodiscard]] std::string errorOf(FunctionRef<void()> work) {
    std::string text = "nothing";
    run([&] {
      try {
        work();
      } catch (const Error& error) {
        text = error.description();
        lastError = error;
      }
    });
    return text;
  }

  const Uuid uuid = *Uuid::parse("00112233-4455-6677-8899-aabbccddeeff");
  const VolumeUuid key{uuid.lower()};
  sim::Simulation simulation;
  sim::SimVolumes volumes;
  std::vector<PipelineHelper*> helpers;
  int snapshotsMade = 0;
  std::optional<Error> lastError;

  // What the providers answer and were told.
  IndexingMode mode = IndexingMode::fullScan;
  bool indexOnBattery = true;
  std::set<std::string> untracked;
  std::optional<ExclusionRules> rules;
  std::vector<ActiveIndexProgress> pushes;
  int restoreCleanups = 0;
  std::vector<std::string> pendingCleanups;

 private:
  // Each life's files lie below another root; what is mounted there stays mounted.
  void moveMounts(const std::string& from, const std::string& to) {
    for (const auto& mount : volumes.mounts()) {
      if (!mount.directory.starts_with(from + "/")) continue;
      ASSERT_TRUE(volumes.unmount(mount.directory, true));
      ASSERT_TRUE(volumes.mount(mount.volume, to + mount.directory.substr(from.size()), mount.snapshot, mount.flags));
    }
  }

  using Sizes = std::map<std::string, std::int64_t>;  // -1 for what is no file
  [[nodiscard]] static Sizes treeOf(const sim::SimTree& tree) {
    Sizes sizes{{"/", -1}};
    for (const auto& [directory, children] : tree.directories()) {
      for (const auto& [name, facts] : children) {
        sizes[directory + "/" + name] = facts.type == FileType::regular ? facts.size : -1;
      }
    }
    return sizes;
  }
  [[nodiscard]] Sizes remembered(Xid xid) {
    Sizes sizes;
    store().reconstruct(key, xid).forEach([&](const SnapshotIndex::EntryView& entry) {
      sizes[std::string(entry.path)] = entry.type == SnapshotIndex::EntryType::file ? entry.size : -1;
    });
    return sizes;
  }
};

}  // namespace quillmark
