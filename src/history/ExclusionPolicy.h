// ExclusionPolicy: what is left out of the trees of a volume: what the settings say, applied to the homes that lie on it,
// and what this kind of machine adds.
// Ownership: borrows its sources, which must outlive it.
// Threads:   thread-safe; looks at the homes, which may wait for a directory service.
#pragma once

#include <string>

#include "history/index/ExclusionRules.h"
#include "platform/HostExclusions.h"

namespace quillmark {

class Clock;
class HomeDirectories;
class SettingsSource;

class ExclusionPolicy final {
 public:
  ExclusionPolicy(SettingsSource& settings, HomeDirectories& homes, Clock& clock, HostExclusions host);

  // Of the settings as they are now. An empty mount point has no homes and no place on the machine.
  [[nodiscard]] ExclusionRules rules(const std::string& mountPoint) const;

 private:
  SettingsSource& settings_;
  HomeDirectories& homes_;
  Clock& clock_;
  const HostExclusions host_;
};

}  // namespace quillmark
