#include "history/EligibleVolumes.h"

#include <fmt/format.h>

#include "base/Text.h"
#include "snapshots/APFSManager.h"
#include "snapshots/VolumeService.h"

namespace quillmark {
namespace {

bool isBackup(const std::optional<std::string>& role) { return role && asciiLower(*role) == "backup"; }

}  // namespace

EligibleVolumes EligibleVolumes::find(const HistoryServices& services, const HistoryWork& work) {
  EligibleVolumes found;
  for (const APFSVolume& listed : services.volumes.listVolumes()) {
    if (isBackup(listed.role) || !work.isTracked(VolumeUuid(listed.id).text())) continue;
    try {
      VolumeInfo volume = services.apfs.resolveVolume(listed.id);
      if (!isBackup(volume.role)) found.volumes.push_back(std::move(volume));
    } catch (const std::exception& exception) {
      found.unresolved.push_back(fmt::format("{} [{}]: {}", listed.name, listed.id, asError(exception).description()));
    }
  }
  return found;
}

}  // namespace quillmark
