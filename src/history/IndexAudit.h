// The audit record of an indexed snapshot, whoever read it.
#pragma once

#include <string>

#include "base/Error.h"
#include "history/HistoryServices.h"
#include "platform/clock.h"
#include "snapshots/VolumeInfo.h"

namespace quillmark {

// The failure is null when there was none. A record that can't be written is the audit trail's to tell of.
void auditIndexing(const HistoryServices& services, const VolumeInfo& volume, const std::string& snapshotName,
                   MonotonicTime began, std::string detail, const Error* failure);

}  // namespace quillmark
