#include "scheduling/FreeSpaceWatch.h"

#include <map>

#include "scheduling/ScheduleEventNotifier.h"
#include "scheduling/SchedulePersistence.h"
#include "wire/Json.h"

namespace quillmark {

void FreeSpaceWatch::tick(FreeSpaceTickReason reason, const QueuePass& queuePass) {
  if (!meter_.beginTick(reason)) return;
  const std::vector<APFSVolume> volumes = services_.volumeList();
  std::map<VolumeUuid, std::string> listed;  // as the list spells them, and so all that clients are told
  for (const APFSVolume& volume : volumes) {
    listed.emplace(volume.id, volume.id);
    meter_.measure(volume.id, volume.mountPath, static_cast<std::int64_t>(volume.totalBytes));
  }
  const std::set<VolumeUuid> eligible = eligibleVolumes();
  for (const VolumeUuid& volume : eligible) {
    const auto known = listed.find(volume);
    queuePass(known == listed.end() ? volume.text() : known->second);
  }
  std::vector<VolumeFreeSpaceState> states = meter_.states();
  services_.notifier.pushFreeSpaceStates(encodeJson(states));
  std::erase_if(states, [&](const auto& state) { return !listed.contains(VolumeUuid(state.volumeUUID)); });
  warning_.evaluate(states, volumes, eligible);
}

std::set<VolumeUuid> FreeSpaceWatch::eligibleVolumes() const {
  std::set<VolumeUuid> eligible;
  if (!gate_.isOpen()) return eligible;
  for (const auto& [uuid, policy] : services_.schedules.allPolicies()) {
    if (policy.pruneOnLowSpace && policy.tracked != false) eligible.insert(VolumeUuid(uuid));
  }
  return eligible;
}

}  // namespace quillmark
