// SchedulerMachine: the scheduler over the real stores and the real snapshot layer, on one simulated machine with one
// volume "Data" of 100 GB, where it is 09:00:00 UTC on Sunday, 1 March 2026.
//
//   SchedulerMachine machine;
//   machine.setPolicy(only({SnapshotCadence::hourly}));
//   machine.start();
//   machine.runFor(2h);
//   EXPECT_THAT(machine.names(), ...);
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HelperParts.h"
#include "journal/AuditTrail.h"
#include "scheduling/PeopleText.h"
#include "scheduling/ScheduleEventNotifier.h"
#include "snapshots/SnapshotHistory.h"

namespace quillmark {

using namespace std::chrono_literals;
using Kind = SnapshotNameInfo::Kind;
using Cadence = SnapshotCadence;

inline constexpr std::int64_t gigabyte = 1'000'000'000;

// A policy of these cadences alone.
inline SchedulePolicy only(std::set<SnapshotCadence> cadences) {
  SchedulePolicy policy = SchedulePolicy::makeDefault().normalized();
  policy.enabledCadences = std::move(cadences);
  return policy;
}

inline Date utc(const std::string& text) { return *parseIso8601(text); }

class RecordingNotifier final : public ScheduleEventNotifier {
 public:
  void broadcast(const std::string&, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
                 const std::string& message) override {
    broadcasts.push_back(std::string(word(event)) + "(" + std::string(cadence ? word(*cadence) : "") + "): " + message);
  }
  void pushFreeSpaceStates(const std::string& json) override { pushes.push_back(json); }
  void deliver(const HelperNotification& notification) override { delivered.push_back(notification); }
  void post(const HelperNotification& notification) override {
    active.insert(*notification.dedupeKey);
    posted.push_back(notification);
  }
  bool isActive(const std::string& key) override { return active.contains(key); }
  void resolve(const std::string& key, const std::string& title, const std::string& message) override {
    active.erase(key);
    resolved.push_back(key + "|" + title + "|" + message);
  }

  std::vector<std::string> broadcasts, pushes, resolved;
  std::vector<HelperNotification> delivered, posted;
  std::set<std::string> active;
};

class RecordingTrail final : public AuditTrail {
 public:
  std::optional<Error> append(const HelperEvent& event) override {
    events.push_back(event);
    return std::nullopt;
  }
  [[nodiscard]] std::vector<std::string> details() const {
    std::vector<std::string> found;
    for (const HelperEvent& event : events) found.push_back(event.detail);
    return found;
  }
  std::vector<HelperEvent> events;
};

class RecordingHistory final : public SnapshotHistory {
 public:
  std::set<Xid> indexedXIDs(const VolumeUuid&) override { return {}; }
  void snapshotCreated(const VolumeInfo&, const SnapshotRecord& snapshot, Forced) override {
    created.push_back(snapshot.name);
  }
  void snapshotsDeleted(const VolumeInfo&, const std::vector<Xid>& xids) override {
    deleted.insert(deleted.end(), xids.begin(), xids.end());
  }
  std::shared_ptr<const void> claim(const VolumeUuid&, const std::string& snapshot) override {
    claimed.push_back(snapshot);
    return nullptr;
  }
  void reconcile(const VolumeUuid&) override {}
  std::vector<std::string> created;
  std::vector<Xid> deleted;
  std::vector<std::string> claimed;
};

class SchedulerMachine {
 public:
  explicit SchedulerMachine(sim::SimulationOptions options = {}) : simulation(std::move(options)) {
    volumes.add(sim::makeSimVolume(uuid));
    helper.managed.callbacks.inventoryChanged = [this](const std::string& volumeUUID) {
      if (!helper.mutations.holdsBack(volumeUUID)) ++changeNotices;
      scheduler->bumpGeneration(volumeUUID);
    };
    helper.managed.callbacks.identityMigration = [this](const VolumeInfo& volume,
                                                        const std::map<std::uint64_t, Xid>& xids) {
      helper.protection.migrateIdentities(volume, xids);
    };
  }

  // Runs the body as the helper would, on a fiber.
  void run(FunctionRef<void()> body) { ASSERT_TRUE(simulation.run(life, body)); }
  void start() {
    if (!isNewVolume) knowSince(now());
    run([&] { scheduler->start(); });
  }
  void runFor(std::chrono::nanoseconds span) { simulation.runFor(span); }
  void runUntil(Date date) { simulation.runFor(std::chrono::duration_cast<std::chrono::nanoseconds>(date - now())); }
  [[nodiscard]] Date now() { return life.clock().now(); }

  void setPolicy(const SchedulePolicy& policy) {
    run([&] { helper.schedules.setPolicy(VolumeUuid(uuid.lower()), policy); });
  }
  void setSettings(const HelperSettings& changed) {
    run([&] { helper.settings.update(changed); });
  }
  // The volume was here before, and people know.
  void knowSince(Date date) {
    run([&] {
      helper.clocks.noteSeen(VolumeUuid(uuid.lower()), date);
      helper.clocks.markDiscoveryNoticeSent(VolumeUuid(uuid.lower()));
    });
  }
  [[nodiscard]] VolumeInfo volume() { return helper.apfs.resolveVolume(uuid.upper()); }

  Xid add(const std::string& name, Date createdAt) { return *volumes.addSnapshot(uuid, name, createdAt); }
  // An own one, named as if taken then.
  std::string add(SnapshotNameInfo::Kind kind, Date createdAt, std::uint64_t ownBlocks = 0) {
    const std::string name = SnapshotNameInfo::format("", kind, createdAt);
    add(name, createdAt);
    volumes.change(uuid, [&](sim::SimVolume& changed) { changed.snapshots.back().ownBlocks = ownBlocks; });
    return name;
  }
  [[nodiscard]] Xid xidOf(const std::string& name) {
    for (const sim::SimSnapshot& snapshot : volumes.snapshots(uuid)) {
      if (snapshot.name == name) return snapshot.xid;
    }
    return {};
  }
  [[nodiscard]] std::vector<std::string> names() {
    std::vector<std::string> found;
    for (const sim::SimSnapshot& snapshot : volumes.snapshots(uuid)) found.push_back(snapshot.name);
    return found;
  }
  // Names without the system's prefix.
  [[nodiscard]] std::vector<std::string> shortNames() {
    std::vector<std::string> found = names();
    for (std::string& name : found) {
      if (SnapshotNameInfo::isOwned(name)) name.erase(0, SnapshotNameInfo::prefix.size());
    }
    return found;
  }
  void protect(const std::string& name) {
    run([&] { helper.protection.setProtected(volume(), true, [&] { return std::optional(xidOf(name)); }); });
  }
  void setFree(std::int64_t bytes) {
    volumes.change(uuid, [&](sim::SimVolume& changed) {
      changed.blockSize = 1000;
      changed.blocks = 100'000'000;
      changed.availableBlocks = static_cast<std::uint64_t>(bytes / 1000);
    });
  }
  void breakProtection() { write(paths.state("protected.json"), "no JSON"); }
  void write(const std::string& path, const std::string& text) {
    run([&] { writeAtomically(posix, life.random(), path, text, 0600); });
  }
  [[nodiscard]] std::vector<std::string> platformLog() {
    std::vector<std::string> found;
    for (const auto& entry : sim.log().entries()) {
      if (entry.category == "scheduler") found.push_back(entry.message);
    }
    return found;
  }

  const Uuid uuid = *Uuid::parse("00112233-4455-6677-8899-aabbccddeeff");
  sim::Simulation simulation;
  sim::Life& life = simulation.startLife("helper");
  sim::SimVolumes volumes;
  sim::SimPlatform sim{life, volumes};
  sim::SimPosix& posix = sim.files();
  const HostPaths& paths = sim.paths();
  RecordingNotifier notifier;
  RecordingTrail audit;
  RecordingHistory history;
  bool isNewVolume = false;
  bool healthBlocks = false;
  int changeNotices = 0;
  std::vector<std::string> appeared;
  int invalidations = 0;

  HelperParts helper{life, sim, volumes, posix, sim.snapshots()};
  RecordingLog& log = helper.log;
  const SchedulerServices services = [this] {
    SchedulerServices made = helper.services(helper.protection, audit, notifier);
    made.history = &history;
    made.automaticDeletionBlocked = [this] { return healthBlocks || !isTrusted(); };
    made.scheduleSnapshotsChanged = [this](const std::string&) { ++changeNotices; };
    made.invalidateVolumeList = [this] { ++invalidations; };
    made.volumeAppeared = [this](const std::string& path) { appeared.push_back(path); };
    return made;
  }();
  const std::shared_ptr<Scheduler> scheduler = Scheduler::make(services);

 private:
  // As the health of the service sees it.
  [[nodiscard]] bool isTrusted() {
    if (helper.schedules.loadFailureDescription() || helper.settings.loadFailureDescription()) return false;
    try {
      helper.protection.ensureLoaded();
      return true;
    } catch (const Error&) {
      return false;
    }
  }
};

}  // namespace quillmark
