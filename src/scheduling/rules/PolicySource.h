// Where policies and settings are read from. Whoever lacks a source uses the defaults.
// Threads: thread-safe.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "base/Uuid.h"
#include "scheduling/rules/HelperSettings.h"
#include "scheduling/rules/SchedulePolicy.h"

namespace quillmark {

class PolicySource {
 public:
  virtual ~PolicySource() = default;
  // Normalized; the default for a volume without one.
  [[nodiscard]] virtual SchedulePolicy policy(const VolumeUuid& volume) = 0;
  [[nodiscard]] virtual std::map<std::string, SchedulePolicy> allPolicies() = 0;
};

class SettingsSource {
 public:
  virtual ~SettingsSource() = default;
  [[nodiscard]] virtual std::optional<HelperSettings> current() = 0;
};

}  // namespace quillmark
