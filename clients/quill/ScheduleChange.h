// ScheduleChange: what a command line changes of a volume's schedule.
// Threads: pure.
// Errors:  wrongUse for what can't be, before anybody is asked.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>

#include "quill/CommandLine.h"
#include "scheduling/rules/SchedulePolicy.h"

namespace quillmark::cli {

class ScheduleChange final {
 public:
  explicit ScheduleChange(const ScheduleRequest& request);

  [[nodiscard]] SchedulePolicy appliedTo(SchedulePolicy policy) const;

 private:
  void takeKept(const std::string& text);
  void refuseContradictions() const;

  std::optional<bool> enabled_, pruneOnLowSpace_, protectForeignSnapshots_, tracked_;
  std::set<SnapshotCadence> begun_, ended_;
  std::map<SnapshotCadence, std::int64_t> kept_;
  std::optional<std::int64_t> lowSpaceBytes_;
};

}  // namespace quillmark::cli
