#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "base/HelperLog.h"
#include "history/SnapshotHistoryManager.h"
#include "platform/SnapshotCalls.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/Validation.h"
#include "snapshots/Refusals.h"
#include "wire/DiffResult.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

constexpr std::chrono::seconds patienceForAFolder{10};
constexpr std::chrono::seconds patienceForAnItem{60};
constexpr std::string_view compareItem = "compare this item";

Error internal(std::string text) { return QuillmarkError::make(QuillmarkErrorCode::internalError, std::move(text)); }

std::string fullScanWords(const DiffSnapshots& call) {
  return call.ignoreExclusions ? "Full scan (exclusions ignored)" : "";
}

std::string detailOf(const DiffSnapshots& call, const DiffResult& result) {
  const auto count = [&](DiffResult::ChangeKind kind) {
    return std::count_if(result.rows.begin(), result.rows.end(), [&](const auto& row) { return row.kind == kind; });
  };
  using enum DiffResult::ChangeKind;
  return fmt::format("{}{}{} change(s): +{} -{} ~{} ↻{}", fullScanWords(call), call.ignoreExclusions ? " · " : "",
                     result.rows.size(), count(added), count(deleted), count(modified), count(replaced));
}

void requireDifferentSnapshots(const DiffSnapshots& call) {
  requireVolumeUUID(call.volumeUUID);
  if (!isValidSnapshotName(call.nameA) || !isValidSnapshotName(call.nameB)) {
    throw internal("Snapshot name is malformed");
  }
  if (call.xidA == call.xidB) throw internal("Refusing to diff a snapshot with itself");
  refuseOSSnapshot(call.nameA, "compare");
  refuseOSSnapshot(call.nameB, "compare");
}

// Which of them aren't there any more; none where that can't be known.
std::set<Xid> goneSince(CommandRun& run, const VolumeInfo& volume, std::set<Xid> xids) {
  try {
    for (const SnapshotRecord& record : run.service().apfs().listSnapshots(volume)) xids.erase(record.xid);
    return xids;
  } catch (const Error&) {
    return {};
  }
}

// As the path stands below the volume's mount point now.
std::string livePath(const VolumeInfo& volume, const std::string& path) {
  if (path == "/") return volume.mountPoint;
  return volume.mountPoint == "/" ? path : volume.mountPoint + path;
}

LocalComparisons::Side comparable(CommandRun& run, const std::string& path, const PeerUser& peer) {
  PeerAuthorization::Found found = run.environment().peerAuthorization.find(path, peer, patienceForAnItem);
  switch (found.verdict) {
    case Verdict::allowed: break;
    case Verdict::denied: throw PeerAuthorization::denied(compareItem, path);
    case Verdict::unresponsive: throw PeerAuthorization::unresponsive(compareItem, path);
  }
  return {path, std::move(found.item)};
}

ExclusionRules rulesAt(CommandRun& run, const std::string& path) {
  const auto status = run.environment().platform.snapshots.statfs(path);
  return run.environment().exclusions.rules(status ? status->mntonname : "");
}

std::vector<std::string> componentsOf(const std::string& path) {
  std::vector<std::string> components;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (end > at) components.push_back(path.substr(at, end - at));
    at = end + 1;
  }
  return components;
}

}  // namespace

void handle(CommandRun& run, const DiffSnapshots& call) {
  HelperEnvironment& environment = run.environment();
  requireDifferentSnapshots(call);
  const VolumeInfo volume = run.service().apfs().resolveVolume(call.volumeUUID);
  refuseBackupVolume(volume, "compare snapshots");
  const auto snapshots =
      run.service().apfs().verifySnapshots(volume, {{call.nameA, Xid{call.xidA}}, {call.nameB, Xid{call.xidB}}});
  AuditAttempt& attempt = run.audit({HelperEvent::Kind::diffSnapshots, "diffSnapshots", call.volumeUUID, volume.name,
                                     fmt::format("{}↔{}", call.xidA, call.xidB), fullScanWords(call)});
  const PeerUser peer = run.service().requirePeer();
  const DiffCache::Request request{.uid = peer.uid,
                                   .volume = volume.key(),
                                   .xidA = Xid{call.xidA},
                                   .xidB = Xid{call.xidB},
                                   .includeTree = call.includeTree,
                                   .ignoreExclusions = call.ignoreExclusions};
  if (const auto known = environment.diffCache.find(request)) return run.replyString(*known);
  if (!environment.history) {
    throw internal(
        "Snapshot comparison history is unavailable. Restart Quillmark after checking free disk space and helper "
        "logs.");
  }
  const auto comparison =
      environment.history->compare(volume, snapshots.at(0), snapshots.at(1), call.includeTree, call.ignoreExclusions);
  const DiffResult result = makeDiffResult(*comparison, call.volumeUUID, request.xidA, request.xidB);
  const MemoryReturn::Held held(&environment.memory, result.rows.size() + result.treeEntries.size());
  const std::string path = environment.diffCache.write(request, result);
  const std::string detail = detailOf(call, result);
  std::optional<Error> unrecorded = attempt.succeeded(detail);
  environment.log.info("diffSnapshots OK: " + detail);
  run.replyString(path, std::move(unrecorded));
  // A deletion while they were compared took its files away before this one was written.
  const std::set<Xid> gone = goneSince(run, volume, {request.xidA, request.xidB});
  if (!gone.empty()) environment.history->forgetComparisonsSoon(volume.key(), gone);
}

void handle(CommandRun& run, const CompareSubtree& call) {
  if (!isValidVolumeUUID(call.volumeUUID) || !isValidItemPath(call.path)) throw internal("Malformed volume or path");
  const auto& history = run.environment().history;
  if (!history) throw internal("Snapshot history is unavailable");
  const VolumeInfo volume = run.service().apfs().resolveVolume(call.volumeUUID);
  run.environment().peerAuthorization.authorize(Asked::mayRead, livePath(volume, call.path),
                                                run.service().requirePeer(), "compare this folder's history",
                                                patienceForAFolder);
  const Xid a{call.xidA}, b{call.xidB};
  const DiffResult result =
      makeDiffResult(history->compareSubtree(volume.key(), call.path, a, b), call.volumeUUID, a, b);
  const MemoryReturn::Held held(&run.environment().memory, result.rows.size());
  run.replyData(encodeDiffResult(result));
}

void handle(CommandRun& run, const CompareLocalPaths& call) {
  if (!isValidItemPath(call.pathA) || !isValidItemPath(call.pathB)) throw internal("Malformed path");
  HelperEnvironment& environment = run.environment();
  const PeerUser peer = run.service().requirePeer();
  LocalComparisons::Request request{.user = peer,
                                    .a = comparable(run, call.pathA, peer),
                                    .b = comparable(run, call.pathB, peer),
                                    .rules = std::nullopt,
                                    .baseComponents = componentsOf(call.subtreePath.value_or("")),
                                    .isAbandoned = [&run] { return run.service().isClientGone(); }};
  if (call.applyExclusions) request.rules = rulesAt(run, call.pathA);
  const Comparison comparison = environment.localComparisons.compare(request);
  run.replyData(encodeDiffResult(makeDiffResult(comparison, "local", {}, {})));
}

}  // namespace quillmark
