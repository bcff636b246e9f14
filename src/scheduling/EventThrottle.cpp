#include "scheduling/EventThrottle.h"

namespace quillmark {

bool EventThrottle::isDue(const VolumeUuid& volume, ScheduleEvent event, std::optional<SnapshotCadence> cadence,
                          Seconds interval) {
  std::string key = volume.text() + "|" + std::string(word(event)) + "|";
  if (cadence) key += word(*cadence);
  const Date now = clock_.now();
  return lastNotifiedAt_.with([&](auto& dates) {
    const auto last = dates.find(key);
    if (last != dates.end() && now >= last->second && now - last->second < interval) return false;
    dates.insert_or_assign(key, now);
    return true;
  });
}

}  // namespace quillmark
