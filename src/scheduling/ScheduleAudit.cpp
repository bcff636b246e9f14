#include "scheduling/ScheduleAudit.h"

#include "journal/AuditTrail.h"
#include "platform/dispatch.h"
#include "platform/random.h"

namespace quillmark {

void ScheduleAudit::write(const VolumeInfo& volume, Record record) const {
  Clock& clock = services_.dispatch.clock();
  HelperEvent event;
  event.id = services_.random.uuid().upper();
  event.timestamp = clock.now();
  event.kind = record.kind;
  event.client = HelperEvent::Client::helper;
  event.volumeName = volume.name;
  event.volumeUUID = volume.uuid;
  event.snapshotName = std::move(record.snapshotName);
  event.detail = std::move(record.detail);
  event.succeeded = !record.errorMessage;
  event.errorMessage = std::move(record.errorMessage);
  event.durationMs = std::chrono::floor<std::chrono::milliseconds>(clock.monotonic() - record.startedAt).count();
  (void)services_.audit.append(event);
}

}  // namespace quillmark
