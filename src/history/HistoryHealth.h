// How the history fares, for the service's health report.
// Threads: any; asks the store. Errors: none.
#pragma once

#include "history/HistoryProviders.h"
#include "history/HistoryServices.h"
#include "history/RepairFailures.h"
#include "wire/Records.h"

namespace quillmark {

[[nodiscard]] HelperSubsystemHealth historyHealth(const HistoryServices& services, const HistoryProviders& providers,
                                                  SnapshotHistoryStore& store, RepairFailures& failures);

}  // namespace quillmark
