// StoreLife: one process's stores over a machine's files, with what they said.
//
//   sim::SimPosix files;
//   prepareMachine(files);
//   StoreLife(files).schedules.setPolicy(volume, policy);
//   EXPECT_EQ(StoreLife(files).schedules.policy(volume), policy);   // the next process
#pragma once

#include <gmock/gmock.h>

#include <cstdio>

#include "base/HelperLog.h"
#include "platform/Files.h"
#include "platform/sim/FaultSweep.h"
#include "platform/sim/SimPlatform.h"
#include "platform/sim/Simulation.h"
#include "scheduling/HelperSettingsPersistence.h"
#include "scheduling/SchedulePersistence.h"
#include "scheduling/VolumeClockPersistence.h"
#include "tests/base/Failures.h"

namespace quillmark {

class KeptHelperLog final : public HelperLog {
 public:
  std::vector<std::string> errors;

 private:
  void emit(LogLevel level, std::string_view message, CodeLocation) override {
    if (level == LogLevel::error) errors.emplace_back(message);
  }
};

// What every machine has; with the state directory if the system ran before.
enum class MachineState { fresh, used };
inline void prepareMachine(sim::SimPosix& files, MachineState state = MachineState::used) {
  createDirectories(files, files.root() + "/var/db", 0755);
  if (state == MachineState::used) createDirectories(files, sim::hostPathsUnder(files.root()).stateDirectory, 0700);
}

class StoreLife final {
 public:
  explicit StoreLife(sim::SimPosix& machine, std::uint64_t seed = 1) : simulation({.seed = seed}), files(machine) {}

  void put(const std::string& name, std::string_view text) {
    writeAtomically(files, life.random(), paths.state(name), text, 0600);
  }
  [[nodiscard]] std::string text(const std::string& name) {
    return readFile(files, paths.state(name)).value_or("[none]");
  }
  // Mode and owner, "600 0:0"; "[none]" when nothing is there.
  [[nodiscard]] std::string attributes(const std::string& path) {
    const auto status = files.lstat(path);
    if (!status) return "[none]";
    char octal[16];
    std::snprintf(octal, sizeof octal, "%o", status->mode);
    return octal + (" " + std::to_string(status->uid)) + ":" + std::to_string(status->gid);
  }
  [[nodiscard]] std::vector<std::string> names() {
    const auto listed = files.list(paths.stateDirectory);
    return listed ? *listed : std::vector<std::string>();
  }
  sim::Simulation simulation;
  sim::Life& life = simulation.startLife("helper");
  sim::SimPosix& files;
  const HostPaths paths = sim::hostPathsUnder(files.root());
  sim::SimPlatformLog log;
  KeptHelperLog helperLog;
  SchedulePersistence schedules{life.dispatch(), files, life.random(), log, paths};
  HelperSettingsPersistence settings{life.dispatch(), files, life.random(), helperLog, paths};
  VolumeClockPersistence clocks{life.dispatch(), files, life.random(), log, paths};
};

inline const VolumeUuid volumeA("AAAAAAAA-0000-4000-8000-000000000001");
inline const VolumeUuid volumeB("bbbbbbbb-0000-4000-8000-000000000002");

// Each a failure that a disk or a machine can have.
inline const sim::FaultSweepOptions everyFailure{.errors = {EIO, ENOSPC, EDQUOT, EROFS, EACCES, EMFILE, ENOMEM}};

}  // namespace quillmark
