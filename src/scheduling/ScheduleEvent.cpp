#include "scheduling/ScheduleEvent.h"

#include <array>
#include <cstdlib>

namespace quillmark {
namespace {

struct Notice {
  const char* title;
  NotificationCategory category;
  NotificationImportance importance;
};

std::optional<Notice> rowOf(ScheduleEvent event) {
  using enum NotificationCategory;
  using enum NotificationImportance;
  switch (event) {
    case ScheduleEvent::createFailed: return Notice{"Quillmark snapshot failed", failure, critical};
    case ScheduleEvent::pruneCompleted: return Notice{"Quillmark pruned snapshots", prune, normal};
    case ScheduleEvent::noPruneCandidates: return Notice{"Quillmark can't free more space", lowSpace, critical};
    case ScheduleEvent::snapshotsDiscovered: return Notice{"Existing snapshots found", discovered, normal};
    case ScheduleEvent::skippedLowSpace:
    case ScheduleEvent::softCeilingExceeded: return std::nullopt;
  }
  std::abort();
}

}  // namespace

std::string_view word(ScheduleEvent event) {
  constexpr std::array words{"skipped_low_space", "create_failed",       "soft_ceiling_exceeded",
                             "prune_completed",   "no_prune_candidates", "snapshots_discovered"};
  return words.at(static_cast<std::size_t>(event));
}

std::string volumeDeepLink(const std::string& volumeUUID) { return "quillmark://volume?uuid=" + volumeUUID; }

std::optional<HelperNotification> noticeOf(ScheduleEvent event, const VolumeInfo& volume, const std::string& message) {
  const std::optional<Notice> row = rowOf(event);
  if (!row) return std::nullopt;
  HelperNotification notice{.title = row->title, .message = message, .category = row->category};
  notice.importance = row->importance;
  notice.volumeUUID = volume.uuid;
  if (!volume.name.empty()) notice.volumeName = volume.name;
  notice.deepLink = volumeDeepLink(volume.uuid);
  if (event == ScheduleEvent::noPruneCandidates) notice.dedupeKey = "noPruneCandidates:" + volume.key().text();
  return notice;
}

}  // namespace quillmark
