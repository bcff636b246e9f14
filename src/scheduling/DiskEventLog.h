// DiskEventLog: the log line of a disk event, for so many of them in an hour.
// Threads: thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/Disks.h"
#include "platform/sync.h"

namespace quillmark {

// "disk-appeared", ...
[[nodiscard]] std::string_view word(DiskEvent::Kind kind);

class DiskEventLog final {
 public:
  static constexpr int mostItemised = 60;

  explicit DiskEventLog(Threads& threads) : state_(threads) {}
  // Absent once an hour's lines are used up.
  [[nodiscard]] std::optional<std::string> line(const DiskEvent& event, Date now);

 private:
  struct State {
    std::int64_t hour = 0;  // since 1970
    int itemised = 0;
  };
  Guarded<State> state_;
};

}  // namespace quillmark
