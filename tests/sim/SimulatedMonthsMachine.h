// Machine: a simulated machine with volumes on which one helper's scheduler runs over the real stores, and the model beside
// it. Each operation happens to both; settle() then holds what the helper did against what the model says.
// Threads: confined to the simulation's thread.
// Errors:  Difference, with the seed and the moment, when the two part, or when something happened that never must.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "SimulatedMonthsCalls.h"
#include "SimulatedMonthsModel.h"
#include "tests/scheduling/SchedulerMachine.h"

namespace quillmark::months {

class Difference final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// All that the helper tells anybody, by volume.
struct Told {
  std::map<std::string, std::deque<std::string>> acts, events, warnings;
};

class Witness final : public ScheduleEventNotifier, public AuditTrail {
 public:
  explicit Witness(sim::Simulation& simulation) : simulation_(simulation) {}

  void broadcast(const std::string& volumeUUID, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
                 const std::string& message) override;
  void pushFreeSpaceStates(const std::string&) override { freeSpaceTold(); }
  void deliver(const HelperNotification&) override { ++delivered; }
  void post(const HelperNotification& notification) override;
  bool isActive(const std::string& key) override { return active_.contains(key); }
  void resolve(const std::string& key, const std::string& title, const std::string& message) override;
  std::optional<Error> append(const HelperEvent& event) override;

  Told told;
  std::vector<std::string> broken;
  std::function<void()> freeSpaceTold;
  std::map<std::string, double> seenSince;  // the first sighting of each volume
  std::map<std::string, double> lastTold;   // since the clock was set back or the process began
  int delivered = 0;

 private:
  void mindThrottle(const std::string& volume, const std::string& key, ScheduleEvent event);
  sim::Simulation& simulation_;
  std::set<std::string> active_;
};

// One process of the helper's.
class Helper final {
 public:
  Helper(sim::Simulation& simulation, sim::SimVolumes& volumes, std::unique_ptr<sim::SimPosix> files,
         const Failures& failures, const Facts& facts, Witness& witness, std::function<void()> listed);
  ~Helper() = default;
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

  [[nodiscard]] bool isTrusted();
  [[nodiscard]] std::string snapshotCatalog(sim::SimVolumes& volumes, const std::string& bsdName);

  sim::Life& life;
  sim::SimPlatform sim;
  const Platform platform;
  const HostPaths& paths;
  WitnessedCalls calls;
  RecordingLog log;
  VolumeProtectionStore protection;
  FailingProtection failingProtection;
  SnapshotNamePersistence displayNames;
  SnapshotTagStore tags;
  SnapshotMutationScope mutations;
  MountPinRegistry pins;
  VolumeQueueRegistry queues;
  SnapshotIdentity identity;
  SnapshotServices managed;
  APFSManager apfs;
  VolumeService volumeService;
  SchedulePersistence schedules;
  HelperSettingsPersistence settings;
  VolumeClockPersistence clocks;
  std::function<void()> listed;
  std::shared_ptr<Scheduler> scheduler;
};

enum class Store { schedules, settings, protection, clocks };
inline constexpr const char* storeFiles[] = {"schedules.json", "settings.json", "protected.json", "volume-clocks.json"};

class Machine final {
 public:
  Machine(std::uint64_t seed, Date start, std::string zone);

  // Time.
  [[nodiscard]] Moment now();
  [[nodiscard]] std::int64_t now1970();
  void runUntil(Moment moment);
  void sleepUntil(Moment moment);
  void jump(std::int64_t seconds);
  void travel(const std::string& zone);

  // Volumes.
  void add(const Uuid& uuid, const std::string& name, bool isBackup);
  void takeAway(const Uuid& uuid);
  void bringBack(const Uuid& uuid);
  void setFree(const Uuid& uuid, std::int64_t bytes);

  // Snapshots. By the helper's own users it hears of.
  enum class By { user, stranger };
  void put(const Uuid& uuid, const std::string& name, double created, By by);
  void remove(const Uuid& uuid, const std::string& name);
  void protect(const Uuid& uuid, const std::string& name, bool isProtected);
  void mount(const Uuid& uuid, const std::string& name, bool isForIndexing);
  void unmount(const Uuid& uuid, const std::string& name);
  void setBytes(const Uuid& uuid, const std::string& name, std::int64_t bytes);

  // What users set; stamped as the service stamps it. False: refused.
  bool setPolicy(const Uuid& uuid, ModelPolicy policy, bool isDiskBroken = false);
  bool setSettings(bool automaticDeletion, int safetyHours, bool isDiskBroken = false);

  // The helper ends; the next one finds these stores unreadable, and those broken before whole again.
  void restart(const std::set<Store>& unreadable);

  enum class Failing { listing, measuring, protection };
  void fail(const Uuid& uuid, Failing what, bool fails);
  void failCreation(int cadence, bool fails);
  void failDeletion(bool fails);

  // Nothing may be changed while the helper waits for something on a volume.
  [[nodiscard]] bool isBusy();
  void settle();
  [[nodiscard]] std::uint64_t lastDraw() const { return simulation_.lastDraw(); }

  Model model;
  int minuteWakes = 0, freeSpaceWakes = 0;
  std::vector<std::string> story;  // the last things that happened

 private:
  struct Wake {
    Moment at;
    bool isFreeSpace;
  };
  void start(std::unique_ptr<sim::SimPosix> files);
  void run(FunctionRef<void()> body);
  void happened(const std::string& what);
  void tellModel();
  void compare();
  void compare(const std::string& uuid, const char* what, std::deque<std::string>& told,
               std::deque<std::string>& expected);
  void compareSnapshots();
  [[noreturn]] void differ(const std::string& what);
  [[nodiscard]] ModelVolume& at(const Uuid& uuid) { return model.volumes.at(uuid.lower()); }
  [[nodiscard]] ModelSnapshot& at(const Uuid& uuid, const std::string& name);
  [[nodiscard]] sim::SimSnapshot simSnapshot(const Uuid& uuid, const std::string& name);

  const std::uint64_t seed_;
  sim::Simulation simulation_;
  sim::SimVolumes volumes_;
  Failures failures_;
  Facts facts_;
  Witness witness_;
  std::vector<Wake> wakes_;
  std::map<Uuid, sim::SimVolume> away_;
  std::map<Store, std::optional<std::string>> brokenStores_;  // with what they held
  Moment shift_;                                              // from the monotonic clock to the wall's
  std::uint64_t settled_ = 0;
  std::unique_ptr<Helper> helper_;
};

}  // namespace quillmark::months
