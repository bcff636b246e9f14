#include "wire/Records.h"

#include "wire/RecordCoding.h"

namespace quillmark {

template <>
struct CaseNames<HelperSubsystemState> {
  static constexpr std::array names{std::pair{HelperSubsystemState::healthy, "healthy"},
                                    std::pair{HelperSubsystemState::degraded, "degraded"},
                                    std::pair{HelperSubsystemState::unavailable, "unavailable"}};
};

template <>
struct Description<SnapshotRecord> {
  static void fields(auto& field, auto& record) {
    field("name", record.name);
    field("xid", record.xid);
    field("createdAt", record.createdAt);
    field("reclaimSizeBytes", record.reclaimSizeBytes);
    field.lenient("sizeGeneration", record.sizeGeneration);
    field.lenient("isProtected", record.isProtected);
    field.lenient("isAutoProtected", record.isAutoProtected);
    field("displayName", record.displayName);
    field.lenient("isIndexed", record.isIndexed);
    field("tag", record.tag);
  }
};

template <>
struct Description<SnapshotMountSpec> {
  static void fields(auto& field, auto& spec) {
    field("name", spec.name);
    field("volumeUUID", spec.volumeUUID);
    field("xid", spec.xid);
  }
};

template <>
struct Description<SnapshotMountOutcome> {
  static void fields(auto& field, auto& outcome) {
    field("xid", outcome.xid);
    field("path", outcome.path);
    field("error", outcome.error);
  }
};

template <>
struct Description<SnapshotPathOutcome> {
  static void fields(auto& field, auto& outcome) {
    field("path", outcome.path);
    field("error", outcome.error);
  }
};

template <>
struct Description<SnapshotDeleteSpec> {
  static void fields(auto& field, auto& spec) {
    field("name", spec.name);
    field("force", spec.force);
  }
};

template <>
struct Description<SnapshotNameOutcome> {
  static void fields(auto& field, auto& outcome) {
    field("name", outcome.name);
    field("error", outcome.error);
    field("auditWarning", outcome.auditWarning);
  }
};

template <>
struct Description<HelperSubsystemHealth> {
  static void fields(auto& field, auto& health) {
    field("state", health.state);
    field("detail", health.detail);
  }
};

template <>
struct Description<HelperHealthStatus> {
  static void fields(auto& field, auto& status) {
    field("correlationID", status.correlationID);
    field("generatedAt", status.generatedAt);
    field("history", status.history);
    field("schedules", status.schedules);
    field("settings", status.settings);
    field("protection", status.protection);
    field("audit", status.audit);
    field("scheduler", status.scheduler);
    field("notes", status.notes);
  }
};

template <>
struct Description<StrandedSnapshotsRecord> {
  static void fields(auto& field, auto& stranded) {
    field("volumeUUID", stranded.volumeUUID);
    field("snapshotCount", stranded.snapshotCount);
    field("volumePath", stranded.volumePath);
  }
};

template <>
struct Description<UnservedSubvolumesRecord> {
  static void fields(auto& field, auto& unserved) {
    field("volumeUUID", unserved.volumeUUID);
    field("fileSystemUUID", unserved.fileSystemUUID);
    field("strandedSnapshots", unserved.strandedSnapshots);
    field("nestedSubvolumeCount", unserved.nestedSubvolumeCount);
    field("nestedSubvolumes", unserved.nestedSubvolumes);
  }
};

template <>
struct Description<AuditLogHealth> {
  static void fields(auto& field, auto& health) {
    field("failedWriteCount", health.failedWriteCount);
    field("consecutiveFailedWrites", health.consecutiveFailedWrites);
    field("lastFailureAt", health.lastFailureAt);
    field("lastError", health.lastError);
  }
};

}  // namespace quillmark

QUILLMARK_RECORD(quillmark::SnapshotRecord)
QUILLMARK_RECORD(quillmark::SnapshotMountSpec)
QUILLMARK_RECORD(quillmark::SnapshotMountOutcome)
QUILLMARK_RECORD(quillmark::SnapshotPathOutcome)
QUILLMARK_RECORD(quillmark::SnapshotDeleteSpec)
QUILLMARK_RECORD(quillmark::SnapshotNameOutcome)
QUILLMARK_RECORD(quillmark::HelperHealthStatus)
QUILLMARK_RECORD(quillmark::UnservedSubvolumesRecord)
QUILLMARK_RECORD(quillmark::AuditLogHealth)
QUILLMARK_RECORD(quillmark::Xid)
