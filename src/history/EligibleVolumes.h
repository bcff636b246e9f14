// EligibleVolumes: the volumes that have a history: mounted, ours to serve, no backup target, not left out by people.
// Threads: thread-safe.
// Errors:  none; what can't be resolved is named.
#pragma once

#include <string>
#include <vector>

#include "base/FunctionRef.h"
#include "history/HistoryWork.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

struct EligibleVolumes {
  std::vector<VolumeInfo> volumes;
  std::vector<std::string> unresolved;  // "<name> [<uuid>]: <why>"

  [[nodiscard]] static EligibleVolumes find(const HistoryServices& services, const HistoryWork& work);
};

}  // namespace quillmark
