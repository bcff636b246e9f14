#include "history/HistoryWork.h"

#include <cerrno>

#include "platform/PowerSources.h"

namespace quillmark {
namespace {

constexpr const char* claimDomain = "Quillmark.SnapshotClaim";

}  // namespace

bool HistoryWork::isEnabled() const {
  return !providers_.indexingMode || providers_.indexingMode() != IndexingMode::disabled;
}

bool HistoryWork::hasPower() const {
  return !providers_.indexOnBattery || providers_.indexOnBattery() || services_.power.isOnACPower();
}

bool HistoryWork::isTracked(const std::string& volumeUUID) const {
  return !providers_.volumeTracked || providers_.volumeTracked(volumeUUID);
}

Error HistoryWork::cancelled(const std::string& what) { return posixError("scan", what, ECANCELED); }

bool HistoryWork::isCancellation(const Error& failure) {
  return failure.domain() == posixErrorDomain && failure.code() == ECANCELED;
}

Error HistoryWork::claimed(const std::string& snapshot) {
  return Error(claimDomain, 1, "\"" + snapshot + "\" is wanted by somebody else");
}

bool HistoryWork::isClaim(const Error& failure) { return failure.domain() == claimDomain; }

}  // namespace quillmark
