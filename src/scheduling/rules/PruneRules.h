// PruneRules: which snapshots have fallen out of the count, which have outlived their nature, and which must stay.
// Ages come from createdAt, never from the time in a name.
// Threads: pure. Errors: none.
// Units:   safetyHours are the settings' hours of a safety snapshot; firstSeenAt is the volume's first sighting on this
//          machine; an absent policy means that the volume has none.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "base/Date.h"
#include "base/Xid.h"
#include "scheduling/rules/SchedulePolicy.h"

namespace quillmark::PruneRules {

struct Snap {
  std::string name;
  Xid xid;
  Date createdAt;  // as the file system reports it
  bool isProtected = false;
  bool isOwned = false;
  bool operator==(const Snap&) const = default;
};

// What will end a snapshot's life.
struct Expiry {
  enum class Case {
    at,            // it goes at the date
    never,         // only the user can remove it
    whenSpaceLow,  // it stays until low-space pruning reaches it
    external,      // not the system's to remove
    unknown,       // the inputs aren't there to say
  } value = Case::unknown;
  std::optional<Date> date;
  bool operator==(const Expiry&) const = default;

  static Expiry at(Date date) { return {Case::at, date}; }
  static constexpr Expiry never() { return {Case::never, std::nullopt}; }
  static constexpr Expiry whenSpaceLow() { return {Case::whenSpaceLow, std::nullopt}; }
  static constexpr Expiry external() { return {Case::external, std::nullopt}; }
  static constexpr Expiry unknown() { return {Case::unknown, std::nullopt}; }
};

// Beyond the count of their cadence, oldest first. A protected snapshot takes no place in the count.
[[nodiscard]] std::vector<Snap> rotationCandidates(const std::vector<Snap>& snaps, const SchedulePolicy& policy);

// Absent for what doesn't age: protected, foreign and manual snapshots, and those that rotation governs.
[[nodiscard]] std::optional<Date> naturalExpiry(const Snap& snap, const std::optional<SchedulePolicy>& policy,
                                                std::optional<Date> firstSeenAt, std::int64_t safetyHours);

// Those whose natural expiry has come, in its order.
[[nodiscard]] std::vector<Snap> expired(const std::vector<Snap>& snaps, const std::optional<SchedulePolicy>& policy,
                                        std::int64_t safetyHours, std::optional<Date> firstSeenAt, Date now);

// The full answer for one snapshot among all of its volume, for the user's eyes; that of a rotating one is a forecast.
[[nodiscard]] Expiry expiry(const Snap& snap, const std::vector<Snap>& all, const std::optional<SchedulePolicy>& policy,
                            std::optional<Date> firstSeenAt, std::int64_t safetyHours, Date now);

// The names that survive a low-space pass, of every cadence, enabled or not.
[[nodiscard]] std::set<std::string> newestOfEachCadence(const std::vector<Snap>& snaps, std::int64_t count);

// The anchor, if it is there, and the newest owned snapshots that aren't newer than it, or than the fallback date.
[[nodiscard]] std::vector<Snap> holdCandidates(const std::vector<Snap>& snaps, const std::string& anchorName,
                                               std::int64_t count, Date fallbackDate);

}  // namespace quillmark::PruneRules
