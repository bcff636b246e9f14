// SnapshotGenerations: which set of snapshots, under which policy, a volume has now, and which one has been through
// rotation. Kept in memory only, so that the first pass after a start rotates.
// Threads: thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <optional>

#include "base/Uuid.h"
#include "platform/sync.h"

namespace quillmark {

class SnapshotGenerations final {
 public:
  explicit SnapshotGenerations(Threads& threads) : volumes_(threads) {}

  // A snapshot came or went, or the policy was saved.
  void bump(const VolumeUuid& volume) {
    volumes_.with([&](auto& volumes) { ++volumes[volume].current; });
  }
  [[nodiscard]] std::uint64_t current(const VolumeUuid& volume) {
    return volumes_.with([&](auto& volumes) { return volumes[volume].current; });
  }
  [[nodiscard]] bool isPruned(const VolumeUuid& volume) {
    return volumes_.with([&](auto& volumes) { return volumes[volume].pruned == volumes[volume].current; });
  }
  // The rotation that began at `before` succeeded with so many changes of its own. What else changed meanwhile, it may
  // not have seen: then the set counts as new.
  void notePruned(const VolumeUuid& volume, std::uint64_t before, std::uint64_t ownChanges) {
    volumes_.with([&](auto& volumes) {
      Generations& entry = volumes[volume];
      if (entry.current <= before + ownChanges) entry.pruned = entry.current;
    });
  }

 private:
  struct Generations {
    std::uint64_t current = 0;
    std::optional<std::uint64_t> pruned;
  };
  Guarded<std::map<VolumeUuid, Generations>> volumes_;
};

}  // namespace quillmark
