// SchedulePersistence: the schedule policy of each volume, in one file.
// Ownership: borrows the facilities, which must outlive it.
// Threads:   thread-safe; the lock is held over the file.
// Errors:    reading never fails: what isn't stored, or can't be read, is the default. setPolicy throws.
// Invariant: memory changes only after the file is on disk. A file that couldn't be read, or written once, is not written
//            again by this process, which says so in loadFailureDescription.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "platform/HostPaths.h"
#include "platform/sync.h"
#include "scheduling/StateFile.h"
#include "scheduling/rules/PolicySource.h"

namespace quillmark {

class PlatformLog;

class SchedulePersistence final : public PolicySource {
 public:
  // A bound on what clients can store: policies need no mounted volume.
  static constexpr std::size_t mostVolumes = 4096;

  SchedulePersistence(Threads& threads, Posix& posix, Random& random, PlatformLog& log, const HostPaths& paths);

  [[nodiscard]] SchedulePolicy policy(const VolumeUuid& volume) override EXCLUDES(lock_);
  [[nodiscard]] bool hasPolicy(const VolumeUuid& volume) EXCLUDES(lock_);
  // Keyed by the volume's UUID in lower case.
  [[nodiscard]] std::map<std::string, SchedulePolicy> allPolicies() override EXCLUDES(lock_);
  // Answers what was stored: the policy, normalized. Throws Error, and then the old one stays in force.
  SchedulePolicy setPolicy(const VolumeUuid& volume, const SchedulePolicy& policy) EXCLUDES(lock_);
  // The same with a client's policy, which is stamped by the stored one: one step, so that two clients at once don't
  // both go by the same old one.
  SchedulePolicy stampAndSetPolicy(const VolumeUuid& volume, const SchedulePolicy& policy, Date now) EXCLUDES(lock_);
  // Absent while the store is whole.
  [[nodiscard]] std::optional<std::string> loadFailureDescription() EXCLUDES(lock_);

 private:
  using Policies = std::map<std::string, SchedulePolicy>;

  [[nodiscard]] SchedulePolicy setLocked(const VolumeUuid& volume, const SchedulePolicy& policy) REQUIRES(lock_);
  void loadLocked() REQUIRES(lock_);
  // False when there is a file that can't be read.
  [[nodiscard]] bool readLocked() REQUIRES(lock_);
  void degradeLocked(const std::string& description, const std::string& logMessage) REQUIRES(lock_);
  void protectForeignOnceLocked() REQUIRES(lock_);
  void write(const Policies& policies) const;

  PlatformLog& log_;
  const StateFile file_;
  const StateFile foreignProtectionMarker_;

  Mutex lock_;
  Policies policies_ GUARDED_BY(lock_);
  bool loaded_ GUARDED_BY(lock_) = false;
  std::optional<std::string> loadFailureDescription_ GUARDED_BY(lock_);
};

}  // namespace quillmark
