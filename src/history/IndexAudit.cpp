#include "history/IndexAudit.h"

#include "journal/AuditTrail.h"
#include "platform/dispatch.h"
#include "platform/random.h"

namespace quillmark {

void auditIndexing(const HistoryServices& services, const VolumeInfo& volume, const std::string& snapshotName,
                   MonotonicTime began, std::string detail, const Error* failure) {
  const auto took = services.dispatch.clock().monotonic() - began;
  HelperEvent event;
  event.id = services.random.uuid().upper();
  event.timestamp = services.dispatch.clock().now();
  event.kind = HelperEvent::Kind::indexSnapshot;
  event.client = HelperEvent::Client::helper;
  event.volumeName = volume.name;
  event.volumeUUID = volume.uuid;
  event.snapshotName = snapshotName;
  event.detail = std::move(detail);
  event.succeeded = failure == nullptr;
  if (failure) event.errorMessage = failure->description();
  event.durationMs = std::chrono::duration_cast<std::chrono::milliseconds>(took).count();
  static_cast<void>(services.audit.append(event));
}

}  // namespace quillmark
