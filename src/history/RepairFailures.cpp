#include "history/RepairFailures.h"

#include <fmt/format.h>

namespace quillmark {

void RepairFailures::record(const VolumeInfo& volume, const std::optional<StoredSnapshot>& snapshot,
                            const Error& failure) {
  std::string text = fmt::format("{} [{}]", volume.name, volume.uuid);
  if (snapshot) text += fmt::format(" · {} · XID {}", snapshot->name, snapshot->xid.value);
  text += ": " + failure.description();
  texts_.with([&](auto& texts) { texts.insert_or_assign(volume.key(), std::move(text)); });
}

void RepairFailures::forget(const VolumeUuid& volume) {
  texts_.with([&](auto& texts) { texts.erase(volume); });
}

bool RepairFailures::isEmpty() {
  return texts_.with([](const auto& texts) { return texts.empty(); });
}

std::vector<std::string> RepairFailures::textsOf(const std::set<VolumeUuid>& volumes) {
  return texts_.with([&](const auto& texts) {
    std::vector<std::string> found;
    for (const auto& [volume, text] : texts) {
      if (volumes.contains(volume)) found.push_back(text);
    }
    return found;
  });
}

}  // namespace quillmark
