#include "history/HistoryHealth.h"

#include <fmt/format.h>

#include "base/Text.h"
#include "snapshots/VolumeService.h"

namespace quillmark {
namespace {

using enum HelperSubsystemState;

// With their names, where they are mounted.
std::string namesOf(const std::vector<VolumeUuid>& volumes, VolumeService& inventory) {
  std::map<VolumeUuid, std::string> names;
  for (const APFSVolume& listed : inventory.listVolumes()) names.emplace(VolumeUuid(listed.id), listed.name);
  std::vector<std::string> items;
  for (const VolumeUuid& volume : volumes) {
    const auto name = names.find(volume);
    items.push_back(name == names.end() ? volume.text() : fmt::format("{} [{}]", name->second, volume.text()));
  }
  return join(items, "; ");
}

// Of a volume that isn't there nobody can do anything about it.
std::vector<std::string> failuresOfMounted(RepairFailures& failures, VolumeService& inventory) {
  if (failures.isEmpty()) return {};
  std::set<VolumeUuid> mounted;
  for (const APFSVolume& listed : inventory.listVolumes()) mounted.emplace(listed.id);
  return failures.textsOf(mounted);
}

}  // namespace

HelperSubsystemHealth historyHealth(const HistoryServices& services, const HistoryProviders& providers,
                                    SnapshotHistoryStore& store, RepairFailures& failures) {
  if (store.isDamaged()) {
    return {unavailable,
            "The history database is damaged. Restart the service: it makes the history anew from the snapshots."};
  }
  try {
    if (const auto lost = store.volumes(HistoryVolumeState::unavailable); !lost.empty()) {
      return {unavailable,
              fmt::format("Version history is unavailable for {}. Use Re-index on the affected volume to rebuild it.",
                          namesOf(lost, services.volumes))};
    }
  } catch (const std::exception& failure) {
    return {unavailable, "history health query failed: " + asError(failure).description()};
  }
  std::vector<std::string> texts = failuresOfMounted(failures, services.volumes);
  if (providers.pendingRestoreCleanups) {
    for (const std::string& path : providers.pendingRestoreCleanups()) {
      texts.push_back("Restore cleanup pending: " + path);
    }
  }
  if (texts.empty()) return {};
  return {degraded, join(texts, " | ")};
}

}  // namespace quillmark
