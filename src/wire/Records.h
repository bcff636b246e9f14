// The records of the wire that no subsystem owns. Their JSON form: wire/Json.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Date.h"
#include "base/Xid.h"

namespace quillmark {

// One snapshot as clients see it.
struct SnapshotRecord {
  std::string name;
  Xid xid;
  Date createdAt;
  std::optional<std::uint64_t> reclaimSizeBytes;  // absent when not measured
  std::uint64_t sizeGeneration = 0;               // of the size cache that made the sizes of this listing
  bool isProtected = false;                       // explicitly, or by foreign-snapshot protection
  bool isAutoProtected = false;                   // by foreign-snapshot protection only
  std::optional<std::string> displayName;
  bool isIndexed = false;
  std::optional<std::string> tag;
  bool operator==(const SnapshotRecord&) const = default;
};

struct SnapshotMountSpec {
  std::string name;
  std::string volumeUUID;
  Xid xid;
  bool operator==(const SnapshotMountSpec&) const = default;
};

struct SnapshotMountOutcome {
  Xid xid;
  std::optional<std::string> path;
  std::optional<std::string> error;
  bool operator==(const SnapshotMountOutcome&) const = default;
};

struct SnapshotPathOutcome {
  std::string path;
  std::optional<std::string> error;
  bool operator==(const SnapshotPathOutcome&) const = default;
};

struct SnapshotDeleteSpec {
  std::string name;
  bool force = false;
  bool operator==(const SnapshotDeleteSpec&) const = default;
};

struct SnapshotNameOutcome {
  std::string name;
  std::optional<std::string> error;
  std::optional<std::string> auditWarning;  // deleted, but the audit record could not be stored
  bool operator==(const SnapshotNameOutcome&) const = default;
};

enum class HelperSubsystemState { healthy, degraded, unavailable };

struct HelperSubsystemHealth {
  HelperSubsystemState state = HelperSubsystemState::healthy;
  std::optional<std::string> detail;
  bool operator==(const HelperSubsystemHealth&) const = default;
};

struct HelperHealthStatus {
  std::string correlationID;
  Date generatedAt;
  HelperSubsystemHealth history;
  HelperSubsystemHealth schedules;
  HelperSubsystemHealth settings;
  HelperSubsystemHealth protection;
  HelperSubsystemHealth audit;
  HelperSubsystemHealth scheduler;
  // What an administrator should know though nothing is broken; absent when there is nothing to tell.
  std::optional<std::vector<std::string>> notes;
  bool operator==(const HelperHealthStatus&) const = default;
};

// Snapshots of ours whose volume isn't mounted.
struct StrandedSnapshotsRecord {
  std::string volumeUUID;
  std::uint64_t snapshotCount = 0;
  std::optional<std::string> volumePath;  // at the top level; absent when the volume is gone
  bool operator==(const StrandedSnapshotsRecord&) const = default;
};

// What listings of a volume's snapshots don't tell (platform/UnservedSubvolumes.h).
struct UnservedSubvolumesRecord {
  std::string volumeUUID;  // upper case, like the next
  std::string fileSystemUUID;
  std::vector<StrandedSnapshotsRecord> strandedSnapshots;
  std::uint64_t nestedSubvolumeCount = 0;
  std::vector<std::string> nestedSubvolumes;  // the first of them
  bool operator==(const UnservedSubvolumesRecord&) const = default;
};

// How the audit trail fares, since the service started.
struct AuditLogHealth {
  std::int64_t failedWriteCount = 0;
  std::int64_t consecutiveFailedWrites = 0;
  std::optional<Date> lastFailureAt;
  std::optional<std::string> lastError;
  bool operator==(const AuditLogHealth&) const = default;
};

}  // namespace quillmark
