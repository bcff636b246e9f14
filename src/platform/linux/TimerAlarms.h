// TimerAlarms: the alarms that were set, by the time that each waits for.
// Threads:   thread-compatible.
// Invariant: alarms of one moment come in the order in which they were set.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <unordered_map>
#include <utility>
#include <variant>
#include <vector>

#include "platform/linux/DispatchHost.h"

namespace quillmark::os {

class TimerAlarms final {
 public:
  AlarmId add(MonotonicTime time, Work work) { return addTo(monotonic_, time, std::move(work)); }
  AlarmId add(Date date, Work work) { return addTo(wall_, date, std::move(work)); }
  // Gives the work back; empty when the alarm came before or never was.
  Work remove(AlarmId id);
  // Takes out what is due, monotonic alarms first.
  [[nodiscard]] std::vector<Work> takeDue(MonotonicTime monotonic, Date wall);
  // The clock was set: takes out what waits for a date, whose owners look at the clock anew.
  [[nodiscard]] std::vector<Work> takeWall();
  [[nodiscard]] std::vector<Work> takeAll();

  [[nodiscard]] std::optional<MonotonicTime> earliestMonotonic() const { return earliest(monotonic_); }
  [[nodiscard]] std::optional<Date> earliestWall() const { return earliest(wall_); }
  [[nodiscard]] bool empty() const { return keys_.empty(); }

 private:
  template <class Time>
  using Line = std::map<std::pair<Time, AlarmId>, Work>;

  template <class Time>
  AlarmId addTo(Line<Time>& line, Time time, Work work) {
    const AlarmId id = ++last_;
    line.emplace(std::pair(time, id), std::move(work));
    keys_.emplace(id, time);
    return id;
  }
  template <class Time>
  static std::optional<Time> earliest(const Line<Time>& line) {
    return line.empty() ? std::nullopt : std::optional<Time>(line.begin()->first.first);
  }
  template <class Time>
  void takeUpTo(Line<Time>& line, Time now, std::vector<Work>& due);

  Line<MonotonicTime> monotonic_;
  Line<Date> wall_;
  std::unordered_map<AlarmId, std::variant<MonotonicTime, Date>> keys_;
  AlarmId last_ = 0;
};

}  // namespace quillmark::os
