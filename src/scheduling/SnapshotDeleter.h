// SnapshotDeleter: the one road by which the scheduler removes anything.
// Threads: any; blocking. Waits for other deleters.
// Errors:  none; a deletion that failed is in the log and in the audit trail.
// Invariant: nothing protected, nothing that passed its name on, and nothing while the gate is closed is ever deleted.
#pragma once

#include "base/Error.h"
#include "base/Xid.h"
#include "scheduling/DeletionGate.h"
#include "scheduling/ScheduleAudit.h"

namespace quillmark {

class SnapshotDeleter final {
 public:
  SnapshotDeleter(const SchedulerServices& services, const DeletionGate& gate, const ScheduleAudit& audit)
      : services_(services), gate_(gate), audit_(audit) {}

  // True when it was deleted. The reason is for people.
  bool remove(const VolumeInfo& volume, const std::string& name, Xid xid, const std::string& reason) const;

 private:
  struct Target {
    const VolumeInfo& volume;
    const std::string& name;
    Xid xid;
  };
  void removeUnlessProtected(const Target& target) const;
  void forget(const Target& target) const;
  void requireSameSnapshot(const Target& target) const;

  const SchedulerServices& services_;
  const DeletionGate& gate_;
  const ScheduleAudit& audit_;
};

}  // namespace quillmark
