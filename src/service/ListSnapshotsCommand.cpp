#include <fmt/format.h>

#include "base/HelperLog.h"
#include "history/SnapshotHistoryManager.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/Validation.h"
#include "snapshots/SnapshotSizes.h"
#include "wire/Json.h"

namespace quillmark {
namespace {

// How long a command line client is kept waiting for sizes.
constexpr std::chrono::seconds sizePatience{110};

// What the listing is joined with.
struct Annotations {
  SchedulePolicy policy;
  std::set<Xid> protectedXIDs;
  std::set<Xid> indexedXIDs;
  std::map<Xid, std::string> tags;
  MeasuredSizes sizes;
  bool showSizes = false;
};

MeasuredSizes sizesFor(CommandRun& run, const VolumeInfo& volume, const std::vector<SnapshotRecord>& listing,
                       bool wantSizes, bool force) {
  SnapshotSizes* sizes = run.environment().sizes;
  if (!sizes) return {};
  std::vector<Xid> all, measurable;
  for (const SnapshotRecord& snapshot : listing) {
    all.push_back(snapshot.xid);
    if (!SnapshotNameInfo::isSystemManaged(snapshot.name)) measurable.push_back(snapshot.xid);
  }
  MeasuredSizes known = sizes->sizes(volume, all, measurable, wantSizes, force);
  if (!wantSizes) return known;
  if (run.service().client() == HelperEvent::Client::cli) return sizes->waitForSizes(volume, sizePatience);
  if (!run.environment().mutations.isOpen(volume.uuid)) sizes->schedule(volume);  // the set would change under it
  return known;
}

SnapshotRecord annotate(CommandRun& run, const VolumeInfo& volume, SnapshotRecord snapshot, const Annotations& notes) {
  const bool isExplicit = notes.protectedXIDs.contains(snapshot.xid);
  const bool foreignCovered = notes.policy.protectForeignSnapshots && !SnapshotNameInfo::isOwned(snapshot.name);
  snapshot.isProtected = isExplicit || foreignCovered;
  snapshot.isAutoProtected = foreignCovered && !isExplicit;
  if (const auto size = notes.sizes.bytes.find(snapshot.xid); notes.showSizes && size != notes.sizes.bytes.end()) {
    snapshot.reclaimSizeBytes = size->second;
  }
  snapshot.sizeGeneration = notes.sizes.generation;
  snapshot.displayName = run.environment().names.displayName(volume.key(), snapshot.name);
  snapshot.isIndexed = notes.indexedXIDs.contains(snapshot.xid);
  if (const auto tag = notes.tags.find(snapshot.xid); tag != notes.tags.end()) snapshot.tag = tag->second;
  return snapshot;
}

std::map<Xid, std::string> tagsOrNone(CommandRun& run, const VolumeInfo& volume) {
  try {
    return run.environment().tags.tags(volume);
  } catch (const std::exception&) {
    return {};  // a listing without tags is better than none
  }
}

}  // namespace

void handle(CommandRun& run, const ListSnapshots& call) {
  HelperEnvironment& environment = run.environment();
  requireVolumeUUID(call.volumeUUID);
  const VolumeInfo volume = run.service().apfs().resolveVolume(call.volumeUUID);
  environment.log.info(fmt::format("listSnapshots resolved volume: {} at {} role={}", volume.name, volume.mountPoint,
                                   volume.role.value_or("<none>")));
  const std::vector<SnapshotRecord> listing = run.service().apfs().listSnapshots(volume);

  Annotations notes;
  notes.policy = environment.persistence.policy(volume.key());
  notes.protectedXIDs = environment.protection.protectedXIDs(volume);
  if (environment.history) notes.indexedXIDs = environment.history->indexedXIDs(volume.key());
  const std::optional<HelperSettings> settings = environment.settings.current();
  const bool measure = settings.value_or(HelperSettings()).measureSnapshotSizes.value_or(true);
  const bool wantSizes = measure && (call.includeSizes || call.forceSizeRefresh);
  notes.sizes = sizesFor(run, volume, listing, wantSizes, call.forceSizeRefresh && measure);
  notes.showSizes = measure;
  notes.tags = tagsOrNone(run, volume);

  std::vector<SnapshotRecord> visible;
  for (const SnapshotRecord& snapshot : listing) {
    if (!SnapshotNameInfo::isSystemManaged(snapshot.name)) visible.push_back(annotate(run, volume, snapshot, notes));
  }
  environment.log.info(fmt::format("listSnapshots OK: {} visible / {} raw", visible.size(), listing.size()));
  run.replyData(encodeJson(visible));
}

}  // namespace quillmark
