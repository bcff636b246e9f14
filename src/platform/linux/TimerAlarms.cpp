#include "platform/linux/TimerAlarms.h"

namespace quillmark::os {

Work TimerAlarms::remove(AlarmId id) {
  const auto key = keys_.find(id);
  if (key == keys_.end()) return nullptr;
  Work work;
  if (const auto* time = std::get_if<MonotonicTime>(&key->second)) {
    work = std::move(monotonic_.extract({*time, id}).mapped());
  } else {
    work = std::move(wall_.extract({std::get<Date>(key->second), id}).mapped());
  }
  keys_.erase(key);
  return work;
}

template <class Time>
void TimerAlarms::takeUpTo(Line<Time>& line, Time now, std::vector<Work>& due) {
  while (!line.empty() && line.begin()->first.first <= now) {
    keys_.erase(line.begin()->first.second);
    due.push_back(std::move(line.begin()->second));
    line.erase(line.begin());
  }
}

std::vector<Work> TimerAlarms::takeDue(MonotonicTime monotonic, Date wall) {
  std::vector<Work> due;
  takeUpTo(monotonic_, monotonic, due);
  takeUpTo(wall_, wall, due);
  return due;
}

std::vector<Work> TimerAlarms::takeWall() {
  std::vector<Work> taken;
  for (auto& [key, work] : wall_) {
    keys_.erase(key.second);
    taken.push_back(std::move(work));
  }
  wall_.clear();
  return taken;
}

std::vector<Work> TimerAlarms::takeAll() {
  std::vector<Work> all;
  takeUpTo(monotonic_, MonotonicTime::max(), all);
  for (Work& work : takeWall()) all.push_back(std::move(work));
  return all;
}

}  // namespace quillmark::os
