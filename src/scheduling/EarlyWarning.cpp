#include "scheduling/EarlyWarning.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/dispatch.h"
#include "platform/random.h"
#include "scheduling/PeopleText.h"
#include "scheduling/ScheduleEventNotifier.h"

namespace quillmark {
namespace {

enum class Nearness { far, between, near };

Nearness nearnessOf(const VolumeFreeSpaceState& state) {
  const std::int64_t threshold = state.lowSpaceBytesThreshold;
  const std::int64_t margin = lowSpaceMargin(threshold);
  const std::int64_t above = state.freeBytes - threshold;
  if (above >= 2 * margin) return Nearness::far;
  return above >= 0 && above < margin ? Nearness::near : Nearness::between;
}

std::string nameOf(const VolumeUuid& volume, const std::vector<APFSVolume>& volumes) {
  const auto found = std::find_if(volumes.begin(), volumes.end(),
                                  [&](const APFSVolume& listed) { return VolumeUuid(listed.id) == volume; });
  return found == volumes.end() ? "A volume" : found->name;
}

}  // namespace

void EarlyWarning::evaluate(const std::vector<VolumeFreeSpaceState>& states, const std::vector<APFSVolume>& volumes,
                            const std::set<VolumeUuid>& eligible) {
  for (const VolumeFreeSpaceState& state : states) {
    const VolumeUuid volume(state.volumeUUID);
    const std::string key = "lowSpaceEarly:" + state.volumeUUID;
    const bool counts = state.lowSpaceBytesThreshold > 0 && state.totalBytes > 0 && eligible.contains(volume);
    const Nearness nearness = counts ? nearnessOf(state) : Nearness::far;
    if (nearness == Nearness::near) warn(key, state, nameOf(volume, volumes));
    if (nearness == Nearness::far) resolve(key, nameOf(volume, volumes));
  }
}

void EarlyWarning::warn(const std::string& key, const VolumeFreeSpaceState& state, const std::string& name) {
  HelperNotification notice;
  notice.id = services_.random.uuid().upper();
  notice.timestamp = services_.dispatch.clock().now();
  notice.title = "Free space getting low";
  notice.message = fmt::format(
      "{} has {} free, close to its {} low-space threshold. Low-space pruning is on for this volume, so Quillmark will "
      "start removing old snapshots below it. Review or protect what you want to keep.",
      name, fileSizeText(state.freeBytes), fileSizeText(state.lowSpaceBytesThreshold));
  notice.category = NotificationCategory::lowSpaceEarly;
  notice.volumeUUID = state.volumeUUID;
  notice.volumeName = name;
  notice.deepLink = volumeDeepLink(state.volumeUUID);
  notice.dedupeKey = key;
  notice.cooldown = cooldown.count();
  services_.notifier.post(notice);
}

void EarlyWarning::resolve(const std::string& key, const std::string& name) {
  if (!services_.notifier.isActive(key)) return;
  services_.notifier.resolve(key, "Free space recovered",
                             name + " is comfortably above its low-space threshold again.");
}

}  // namespace quillmark
