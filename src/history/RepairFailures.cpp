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

std::vector<std::string> RepairFailures::texts() {
  return texts_.with([](const auto& texts) {
    std::vector<std::string> all;
    for (const auto& [volume, text] : texts) all.push_back(text);
    return all;
  });
}

}  // namespace quillmark
