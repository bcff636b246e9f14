// HelperSettingsPersistence: the machine-wide settings, in one file.
// Ownership: borrows the facilities, which must outlive it.
// Threads:   thread-safe; the lock is held over the file.
// Errors:    reading never fails: a file that can't be read leaves the defaults in use. update throws.
// Invariant: memory changes only after the file is on disk, but for merged defaults. A file that couldn't be read, or
//            written once, is not written again by this process, which says so in loadFailureDescription.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/HostPaths.h"
#include "platform/sync.h"
#include "scheduling/StateFile.h"
#include "scheduling/rules/PolicySource.h"

namespace quillmark {

class HelperLog;

class HelperSettingsPersistence final : public SettingsSource {
 public:
  HelperSettingsPersistence(Threads& threads, Posix& posix, Random& random, HelperLog& log, const HostPaths& paths);

  [[nodiscard]] std::optional<HelperSettings> current() override EXCLUDES(lock_);
  // Answers what was stored: the settings, normalized. Throws Error, and then the old ones stay in force.
  HelperSettings update(const HelperSettings& settings) EXCLUDES(lock_);
  // Takes in the default rules that came after the settings were written; answers which. Once, at the start.
  std::vector<std::string> mergeNewDefaults() EXCLUDES(lock_);
  // Absent while the store is whole.
  [[nodiscard]] std::optional<std::string> loadFailureDescription() EXCLUDES(lock_);

 private:
  void loadLocked() REQUIRES(lock_);
  void write(const HelperSettings& settings) const;

  HelperLog& log_;
  const StateFile file_;

  Mutex lock_;
  std::optional<HelperSettings> cached_ GUARDED_BY(lock_);
  bool loaded_ GUARDED_BY(lock_) = false;
  std::optional<std::string> loadFailureDescription_ GUARDED_BY(lock_);
};

}  // namespace quillmark
