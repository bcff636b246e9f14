#include "history/IndexProgress.h"

#include <algorithm>
#include <optional>

namespace quillmark {

void IndexProgress::begin(const VolumeUuid& volume, Xid xid, const std::string& phase) {
  const ActiveIndexProgress progress{volume.text(), xid, phase, 0};
  active_.with([&](auto& active) { active.insert_or_assign(volume, progress); });
  push(progress);
}

void IndexProgress::counted(const VolumeUuid& volume, Xid xid, std::int64_t files) {
  const auto progress = active_.with([&](auto& active) -> std::optional<ActiveIndexProgress> {
    const auto found = active.find(volume);
    if (found == active.end() || found->second.phase != "indexing" || found->second.snapshotXID != xid) return {};
    found->second.filesScanned = std::max(found->second.filesScanned, files);
    return found->second;
  });
  if (progress) push(*progress);
}

void IndexProgress::remove(const VolumeUuid& volume) {
  active_.with([&](auto& active) { active.erase(volume); });
}

void IndexProgress::done(const VolumeUuid& volume) {
  remove(volume);
  push({volume.text(), Xid{0}, "done", 0});
}

std::vector<ActiveIndexProgress> IndexProgress::active() {
  return active_.with([](const auto& active) {
    std::vector<ActiveIndexProgress> all;
    for (const auto& [volume, progress] : active) all.push_back(progress);
    return all;
  });
}

void IndexProgress::push(ActiveIndexProgress progress) {
  if (!providers_.progressReporter) return;
  pushQueue_->async([report = providers_.progressReporter, progress = std::move(progress)] { report(progress); });
}

}  // namespace quillmark
