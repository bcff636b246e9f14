#include "quill/LogFilter.h"

#include <array>

#include "base/Text.h"
#include "quill/Failures.h"
#include "quill/Schedules.h"
#include "quill/TimeText.h"
#include "quill/VolumeChoice.h"

namespace quillmark::cli {
namespace {

using Kind = HelperEvent::Kind;

// As the commands are called that do it.
constexpr std::array shortWords{
    std::pair{"create", Kind::createSnapshot},    std::pair{"delete", Kind::deleteSnapshot},
    std::pair{"mount", Kind::mountSnapshot},      std::pair{"unmount", Kind::unmountSnapshot},
    std::pair{"compare", Kind::diffSnapshots},    std::pair{"index", Kind::indexSnapshot},
    std::pair{"protect", Kind::setProtection},    std::pair{"unprotect", Kind::setProtection},
    std::pair{"protection", Kind::setProtection}, std::pair{"tag", Kind::setTag},
    std::pair{"restore", Kind::restoreFile},      std::pair{"alarm", Kind::monitorAlarm}};

Kind kindMeant(const std::string& text) {
  for (const auto& [word, kind] : shortWords) {
    if (equalsIgnoringAsciiCase(word, text)) return kind;
  }
  for (const Kind kind : HelperEvent::allKinds) {
    if (equalsIgnoringAsciiCase(word(kind), text)) return kind;
  }
  throw wrongUse("There is no kind \"" + text + "\".",
                 "The kinds: create, delete, mount, unmount, compare, index, protect, tag, restore, alarm");
}

std::string uuidMeant(CommandContext& context, const std::string& text) {
  try {
    return chooseVolume(context.volumes, text);
  } catch (const Error&) {
    return {};  // gone, or not the only one of that name: its name decides
  }
}

}  // namespace

VolumeOfRecords::VolumeOfRecords(CommandContext& context, const std::string& text)
    : text_(text), uuid_(uuidMeant(context, text)), name_(uuid_.empty() ? text : volumeNameOf(context, uuid_)) {}

bool VolumeOfRecords::isMeant(std::string_view recordedUUID, std::string_view recordedName) const {
  if (!recordedUUID.empty() && !uuid_.empty()) return equalsIgnoringAsciiCase(recordedUUID, uuid_);
  return equalsIgnoringAsciiCase(recordedName, text_) || (!name_.empty() && recordedName == name_);
}

LogFilter::LogFilter(CommandContext& context, const LogRequest& request) : failedOnly_(request.failed) {
  for (const std::string& kind : request.kinds) kinds_.insert(kindMeant(kind));
  if (request.since) since_ = momentMeant(context.clock, *request.since);
  if (request.volume) volume_.emplace(context, *request.volume);
}

bool LogFilter::wants(const HelperEvent& event) const {
  if (failedOnly_ && event.succeeded) return false;
  if (!kinds_.empty() && !kinds_.contains(event.kind)) return false;
  if (since_ && event.timestamp < *since_) return false;
  return !volume_ || volume_->isMeant(event.volumeUUID, event.volumeName);
}

NoticeFilter::NoticeFilter(CommandContext& context, const NoticesRequest& request) : criticalOnly_(request.critical) {
  if (request.since) since_ = momentMeant(context.clock, *request.since);
  if (request.volume) volume_.emplace(context, *request.volume);
}

bool NoticeFilter::wants(const HelperNotification& notice) const {
  if (criticalOnly_ && notice.importance != NotificationImportance::critical) return false;
  if (since_ && notice.timestamp < *since_) return false;
  return !volume_ || volume_->isMeant(notice.volumeUUID.value_or(""), notice.volumeName.value_or(""));
}

}  // namespace quillmark::cli
