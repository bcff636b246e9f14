#include "scheduling/LowSpacePass.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>

#include "base/Text.h"
#include "platform/SnapshotCalls.h"
#include "platform/dispatch.h"
#include "scheduling/PeopleText.h"
#include "scheduling/SchedulePersistence.h"
#include "scheduling/SnapshotInventory.h"
#include "snapshots/DiskutilFacts.h"

namespace quillmark {
namespace {

constexpr std::array pruneKindWords{"automatic", "manual", "foreign"};
// As sentences call them.
constexpr std::array pruneKindNames{"automatic", "manual", "third-party"};

bool startsWithKind(std::string_view name, std::string_view kind) {
  return name.starts_with(std::string(SnapshotNameInfo::prefix) + std::string(kind) + ".");
}

// What deletions give back is there for all volumes of a container.
std::string spaceOf(const VolumeInfo& volume) {
  return volume.bsdName.empty() ? volume.key().text() : containerBSDName(volume.bsdName);
}

}  // namespace

std::string_view word(PruneKind kind) { return pruneKindWords.at(static_cast<std::size_t>(kind)); }

PruneKind pruneKind(std::string_view name) {
  if (startsWithKind(name, SnapshotNameInfo::manualWord)) return PruneKind::manual;
  return SnapshotNameInfo::isOwned(name) ? PruneKind::automatic : PruneKind::foreign;
}

void LowSpacePass::run(const std::string& uuid, Work again) {
  const auto volume = schedulableVolume(services_.apfs, uuid);
  if (!volume) return;
  const auto turn = turns_.take(spaceOf(*volume), std::move(again));
  if (!turn) return;
  // Read again: the pass may have waited, and the user changed his mind.
  const SchedulePolicy policy = services_.schedules.policy(volume->key());
  if (!policy.pruneOnLowSpace || policy.tracked == false) return;
  const auto space = meter_.measure(volume->uuid, volume->mountPoint, std::nullopt);
  if (!space || space->freeBytes >= space->lowSpaceBytesThreshold) return;
  Run run{*volume, policy, space->freeBytes, space->lowSpaceBytesThreshold, {}, false};
  if (!gate_.isOpen()) {
    return sendNoCandidates(
        run,
        "Free space is below the configured minimum, but automatic deletion is paused by the global "
        "safety switch or a degraded protection/policy store.");
  }
  prune(run);
  if (run.total() == 0) return reportNothing(run);
  reportPruned(run);
}

void LowSpacePass::prune(Run& run) {
  while (run.total() < mostDeletions) {
    const Candidates found = candidates(run);
    if (found.oldestFirst.empty() || found.snapshotCount < 2) return;
    const PruneRules::Snap& oldest = found.oldestFirst.front();
    const std::string reason = fmt::format(
        "Pruned because volume free space ({}) is below the configured minimum ({}). Oldest non-held snapshot "
        "first; the newest snapshot of each cadence is kept.",
        fileSizeText(freeNow(run)), fileSizeText(run.threshold));
    run.deletionFailed = !deleter_.remove(run.volume, oldest.name, oldest.xid, reason);
    if (run.deletionFailed) return;
    ++run.deleted.at(static_cast<std::size_t>(pruneKind(oldest.name)));
    if (awaitSpace(run)) return;
  }
}

bool LowSpacePass::awaitSpace(const Run& run) {
  // What is being got back counts before anything else goes.
  if (!services_.calls.waitForSpace(run.volume.mountPoint, mostReclaiming)) return true;
  for (int i = 0; i < mostWaits; ++i) {
    sleepFor(services_.dispatch, wait);
    const auto space = meter_.measure(run.volume.uuid, run.volume.mountPoint, std::nullopt);
    if (space && space->freeBytes - run.threshold >= lowSpaceMargin(run.threshold)) return true;
  }
  return false;
}

LowSpacePass::Candidates LowSpacePass::candidates(const Run& run) const {
  const auto protectedXIDs = protectedXIDsFor(services_, "low-space prune", run.volume);
  if (!protectedXIDs) return {};
  std::vector<PruneRules::Snap> snaps;
  try {
    snaps = prunableSnapshots(services_.apfs, run.volume, *protectedXIDs);
  } catch (const std::exception&) {
    return {};
  }
  const std::set<std::string> kept = PruneRules::newestOfEachCadence(snaps, 1);
  Candidates found{{}, snaps.size()};
  for (PruneRules::Snap& snap : snaps) {
    const bool stays = snap.isProtected || (!snap.isOwned && run.policy.protectForeignSnapshots) ||
                       kept.contains(snap.name) || isSnapshotInUse(services_, run.volume, snap.xid);
    if (!stays) found.oldestFirst.push_back(std::move(snap));
  }
  std::sort(found.oldestFirst.begin(), found.oldestFirst.end(),
            [](const auto& a, const auto& b) { return std::tie(a.createdAt, a.xid) < std::tie(b.createdAt, b.xid); });
  return found;
}

std::int64_t LowSpacePass::freeNow(const Run& run) {
  const auto last = meter_.last(run.volume.key());
  return last ? last->freeBytes : run.freeAtStart;
}

void LowSpacePass::reportNothing(const Run& run) {
  const auto last = meter_.last(run.volume.key());
  if (!last || last->freeBytes >= last->lowSpaceBytesThreshold) return;
  const std::string beginning =
      fmt::format("On {}, free space is below {}", run.volume.name, fileSizeText(run.threshold));
  if (run.deletionFailed) {
    return sendNoCandidates(
        run,
        beginning +
            " and Quillmark could not delete the snapshot it selected to reclaim space. It will try again on the "
            "next check; see the activity log for the reason. Free space manually if the volume is urgently full.");
  }
  sendNoCandidates(run, beginning +
                            " but no snapshots can be pruned. The rest are protected, in use, or the newest of their "
                            "kind. Consider unprotecting older snapshots or freeing space manually.");
}

void LowSpacePass::reportPruned(const Run& run) {
  const std::int64_t recovered = std::max<std::int64_t>(freeNow(run) - run.freeAtStart, 0);
  std::vector<std::string> parts;
  for (std::size_t kind = 0; kind < run.deleted.size(); ++kind) {
    if (run.deleted[kind] > 0) parts.push_back(fmt::format("{} {}", run.deleted[kind], pruneKindNames[kind]));
  }
  const std::string reason =
      fmt::format("low free space (recovered {} so far; APFS may release more shortly)", fileSizeText(recovered));
  events_.send(run.volume, std::nullopt, ScheduleEvent::pruneCompleted,
               fmt::format("Quillmark pruned {} on {} ({}). Reason: {}. Snapshots can't be recovered.",
                           counted(run.total(), "snapshot"), run.volume.name, join(parts, ", "), reason));
}

void LowSpacePass::sendNoCandidates(const Run& run, const std::string& message) {
  events_.sendIfDue(run.volume, std::nullopt, ScheduleEvent::noPruneCandidates, EventIntervals::noPruneCandidates,
                    message);
}

}  // namespace quillmark
