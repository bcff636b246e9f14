#include "service/AuditAttempt.h"

#include "platform/dispatch.h"
#include "platform/random.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/ShortText.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

// Longer than any valid name or label, so that what is cut was refused.
constexpr std::size_t mostRecordText = 512;

}  // namespace

HelperEvent AuditAttempt::makeEvent(const std::string& detail) {
  const Platform& platform = service_.environment().platform;
  HelperEvent event;
  event.id = platform.random.uuid().upper();
  event.timestamp = platform.clock.now();
  event.kind = draft_.kind;
  event.client = service_.client();
  event.user = service_.user();
  event.volumeName = draft_.volumeName;
  event.volumeUUID = shortText(draft_.volumeUUID, mostRecordText);
  if (draft_.snapshotName) event.snapshotName = shortText(*draft_.snapshotName, mostRecordText);
  event.detail = shortText(detail, mostRecordText);
  event.durationMs = (platform.clock.monotonic() - started_).count() / 1'000'000;
  return event;
}

std::optional<Error> AuditAttempt::succeeded(const std::string& detail) {
  HelperEvent event = makeEvent(detail);
  event.succeeded = true;
  const std::optional<Error> failure = service_.environment().audit.append(event);
  if (!failure) return std::nullopt;
  return QuillmarkError::auditNotPersisted(draft_.operation, *failure);
}

void AuditAttempt::failed(const Error& error) {
  if (draft_.volumeName.empty() && !draft_.volumeUUID.empty()) {
    try {
      draft_.volumeName = service_.apfs().resolveVolume(draft_.volumeUUID).name;
    } catch (const std::exception&) {
      // The name stays empty.
    }
  }
  HelperEvent event = makeEvent(draft_.failureDetail);
  event.errorMessage = shortText(error.description(), mostRecordText);
  (void)service_.environment().audit.append(event);  // the client is told of its own failure only
}

}  // namespace quillmark
