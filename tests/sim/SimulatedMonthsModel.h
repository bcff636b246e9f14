// Model: what the helper has to do on a machine, told its wakes one after the other; a second telling of the rules, which
// shares no code with the helper.
//
//   model.volumes["..."].policy = ...;         // what happens to the machine, when it happens
//   model.minute(wake); model.freeSpace(wake); // what the helper was woken for
//   model.acts["..."]                          // what it must have done by then
//
// Threads: thread-compatible.
// Units:   bytes; moments are nanoseconds since the reference date 2001-01-01, and the doubles of clocks and files are
//          those seconds.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "SimulatedMonthsZones.h"

namespace quillmark::months {

using Moment = std::int64_t;
inline constexpr Moment second = 1'000'000'000;
[[nodiscard]] inline double secondsOf(Moment moment) { return static_cast<double>(moment) * 1e-9; }

struct ModelPolicy {
  bool enabled = true;
  std::array<bool, cadences> on{};
  std::array<int, cadences> keep{};
  bool pruneOnLowSpace = true;
  std::int64_t lowSpaceBytes = 30'000'000'000;
  bool protectForeign = true;
  bool isTracked = true;
  std::optional<double> disabledAt;
  std::array<std::optional<double>, cadences> cadenceDisabledAt{};
};

struct ModelSnapshot {
  std::string name;
  double created = 0;
  std::uint64_t order = 0;  // later ones are higher
  bool isProtected = false;
  bool isMounted = false;
  std::int64_t bytes = 0;
};

struct ModelVolume {
  std::string name;
  bool isPresent = true;
  bool isBackup = false;
  std::int64_t free = 0;
  std::int64_t coming = 0;  // back to free, when somebody waits for it
  // What was free before each moment at which a pass got something back: others measure while it waits.
  std::map<Moment, std::int64_t> freeBefore;
  std::vector<ModelSnapshot> snapshots;
  std::optional<ModelPolicy> policy;
  std::optional<double> firstSeen;
  bool isNoticeSent = false;

  // Failures.
  bool cannotList = false;
  bool cannotMeasure = false;
  bool cannotTellProtected = false;

  // Lost with the process.
  struct Attempt {
    std::int64_t occurrence;
    double notBefore;
  };
  std::array<std::optional<Attempt>, cadences> attempts{};
  std::uint64_t generation = 0;
  std::optional<std::uint64_t> rotated;
  std::optional<std::int64_t> measured;
  std::int64_t thresholdThen = 0;
  Moment busyUntil = 0;
};

class Model final {
 public:
  // One timer's firing, or a disk's.
  void minute(Moment now);
  void freeSpace(Moment now);
  [[nodiscard]] std::uint64_t nextOrder() { return ++created_; }
  // The process ended and another began, which reads what is on disk.
  void restart();
  // People were told of the service's own health, or that it is well again.
  void healthTold(Moment now, bool isDegraded);
  [[nodiscard]] bool isHealthTold() const { return posted_.contains(healthKey); }
  // What health says is wrong, with stars for what the system's errors say; empty when nothing is.
  [[nodiscard]] std::string problem() const;
  [[nodiscard]] bool isDegraded() const { return !problem().empty(); }

  std::map<std::string, ModelVolume> volumes;  // by UUID
  std::string zone = "UTC";
  bool automaticDeletion = true;
  int safetyHours = 24;
  // Failures of the machine's.
  enum class Trouble { none, unreadable, unwritten };
  Trouble schedules = Trouble::none, settings = Trouble::none, protection = Trouble::none;
  bool cannotSaveClocks = false, cannotSaveNotices = false;
  bool cannotDelete = false;
  std::array<bool, cadences> cannotCreate{};

  // What files of theirs hold, for the next process.
  struct StoredClock {
    double firstSeen;
    bool isNoticeSent;
  };
  std::map<std::string, StoredClock> clocksOnDisk;
  std::map<std::string, double> postedOnDisk;

  // By volume, in their order: records of the audit trail; and what clients and people are told. A star stands for
  // anything.
  std::map<std::string, std::deque<std::string>> acts, events, notices, warnings;
  std::map<std::string, int> reached;  // branches that this run came through

 private:
  using Volumes = std::map<std::string, ModelVolume>;
  struct Pass {
    const std::string& uuid;
    ModelVolume& volume;
    Moment now;
    Moment queuedAt;  // the volume may have been busy
  };
  [[nodiscard]] static Pass queued(Volumes::value_type& entry, Moment now);
  [[nodiscard]] bool gateIsOpen() const;
  [[nodiscard]] bool isScheduled(const ModelVolume& volume) const;
  void sweep(Pass pass);
  void discover(Pass pass);
  void pass(Pass pass);
  void take(Pass pass, int cadence, std::int64_t occurrence);
  [[nodiscard]] std::optional<std::string> create(Pass pass, int cadence, std::int64_t stamp);
  [[nodiscard]] bool rotate(Pass pass);
  void checkCeiling(Pass pass);
  void lowSpace(Pass pass);
  [[nodiscard]] bool awaitSpace(Pass& pass);
  [[nodiscard]] std::optional<std::string> lowSpaceCandidate(Pass pass);
  void reportNothing(Pass pass, bool deletionFailed);
  [[nodiscard]] bool remove(Pass pass, const std::string& name, const std::string& reason);
  [[nodiscard]] std::optional<double> expiry(const ModelVolume& volume, const ModelSnapshot& snapshot) const;
  [[nodiscard]] bool measure(ModelVolume& volume) const;
  void warn(const std::string& uuid, ModelVolume& volume, bool isEligible, Moment now);
  // False when it isn't time for another one.
  bool tell(Pass pass, const std::string& event, const std::string& cadence, double interval);
  void notify(Pass pass, const std::string& text) { notices[pass.uuid].push_back(text); }
  void reportPruned(Pass pass, const std::array<int, 3>& deleted);
  void saveClocks();
  void savePosted(double now);
  void act(Pass pass, std::string text) { acts[pass.uuid].push_back(std::move(text)); }

  std::uint64_t ticks_ = 0;
  std::uint64_t created_ = 1'000'000'000;
  std::map<std::string, double> lastTold_;
  std::map<std::string, double> posted_;  // and not over
  static constexpr const char* healthKey = "helperHealthDegraded";
};

enum class NameKind { automatic, manual, safety, foreign, system };
[[nodiscard]] NameKind kindOf(const std::string& name);
// -1 for what isn't automatic.
[[nodiscard]] int cadenceOf(const std::string& name);

}  // namespace quillmark::months
