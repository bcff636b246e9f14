// Helper: one process of the helper's on a simulated machine: the scheduler over the real stores, notices and health, with
// an ear to all that it tells anybody.
// Ownership: borrows the machine; owns its files, which its successor gets a copy of.
// Threads:   confined to the simulation's thread.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "SimulatedMonthsCalls.h"
#include "SimulatedMonthsFiles.h"
#include "SimulatedMonthsModel.h"
#include "notifications/HelperNotifications.h"
#include "service/HealthMonitor.h"
#include "tests/scheduling/SchedulerMachine.h"

namespace quillmark::months {

// All that the helper tells anybody, by volume; notices of no volume under the empty name. Warnings come from another
// queue than the passes: the two have no order.
struct Told {
  std::map<std::string, std::deque<std::string>> acts, events, notices, warnings;
};

class Witness final : public AuditTrail {
 public:
  explicit Witness(const Failures& failures) : failures_(failures) {}

  std::optional<Error> append(const HelperEvent& event) override;
  void broadcast(const std::string& volumeUUID, std::optional<SnapshotCadence> cadence, ScheduleEvent event);
  void noticed(const std::string& json);

  Told told;
  std::vector<std::string> broken;
  std::function<void()> freeSpaceTold;

 private:
  const Failures& failures_;
};

class Helper final : private ScheduleEventNotifier {
 public:
  Helper(sim::Simulation& simulation, sim::SimVolumes& volumes, std::unique_ptr<sim::SimPosix> files,
         const Failures& failures, const Facts& facts, Witness& witness, std::function<void()> listed);
  ~Helper() = default;
  Helper(const Helper&) = delete;
  Helper& operator=(const Helper&) = delete;

 private:
  void broadcast(const std::string& volumeUUID, std::optional<SnapshotCadence> cadence, ScheduleEvent event,
                 const std::string&) override {
    witness_.broadcast(volumeUUID, cadence, event);
  }
  void pushFreeSpaceStates(const std::string&) override { witness_.freeSpaceTold(); }
  void deliver(const HelperNotification& notice) override { notifications.deliver(notice); }
  void post(const HelperNotification& notice) override { notifications.post(notice); }
  bool isActive(const std::string& key) override { return notifications.isActive(key); }
  void resolve(const std::string& key, const std::string& title, const std::string& message) override {
    notifications.resolve(key, title, message);
  }
  [[nodiscard]] HealthProbes probes();

  Witness& witness_;

 public:
  sim::Life& life;
  sim::SimPlatform sim;
  const HostPaths& paths;
  FailingFiles files;
  WitnessedCalls calls;
  HelperParts parts;
  FailingProtection failingProtection;
  HelperNotifications notifications;
  HealthMonitor health;
  std::shared_ptr<Scheduler> scheduler;
};

}  // namespace quillmark::months
