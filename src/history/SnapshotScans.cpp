#include "history/SnapshotScans.h"

#include <fmt/format.h>

#include "base/HelperLog.h"
#include "history/HistoryQueues.h"
#include "history/IndexAudit.h"
#include "history/MemoryReturn.h"
#include "history/ProgressThrottle.h"
#include "platform/DirectoryReader.h"
#include "platform/Disks.h"
#include "platform/SnapshotCalls.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

constexpr std::chrono::milliseconds progressInterval{300};

// Counted from before the lock is taken until after the mount is given back.
class Running final {
 public:
  explicit Running(Group& group) : group_(group) { group_.enter(); }
  ~Running() { group_.leave(); }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

 private:
  Group& group_;
};

}  // namespace

SnapshotScans::SnapshotScans(const HistoryServices& services, const HistoryProviders& providers, HistoryQueues& queues,
                             HistoryWork& work, IndexMounts& mounts, IndexProgress& progress, RepairFailures& failures)
    : services_(services), providers_(providers), queues_(queues), work_(work), mounts_(mounts), progress_(progress),
      failures_(failures),
      scanner_(
          services.dispatch, services.directories, [&log = services.log](const std::string& text) { log.info(text); },
          [&log = services.log](const std::string& text) { log.warn(text); },
          std::make_shared<TreeMemory>(services.directories.memorySize() / 8 * 3)),
      claims_(services.dispatch), running_(services.dispatch), scanning_(services.dispatch) {}

SnapshotIndex::ShardedEntries SnapshotScans::scan(const SnapshotScan& scan) {
  const Running running(running_);
  MutexLock lock(scanning_);
  std::optional<SnapshotClaims::Reading> reading;
  if (scan.yields) reading.emplace(claims_, SnapshotClaims::Key{scan.volume.key(), scan.snapshot.name});
  return scanMounted(scan, reading ? &*reading : nullptr, services_.dispatch.clock().monotonic());
}

SnapshotIndex::ShardedEntries SnapshotScans::scanMounted(const SnapshotScan& scan,
                                                         const SnapshotClaims::Reading* reading, MonotonicTime began) {
  const auto isUnwanted = [reading] { return reading && reading->isUnwanted(); };
  if (work_.mustEnd()) throw HistoryWork::cancelled(scan.snapshot.name);
  if (isUnwanted()) throw HistoryWork::claimed(scan.snapshot.name);
  // Before anything is mounted: asking for people's homes may take its time.
  std::optional<ExclusionRules> rules;
  if (!scan.ignoreExclusions && providers_.exclusionRules) rules = providers_.exclusionRules(scan.volume.mountPoint);
  const auto revoked = std::make_shared<std::atomic<bool>>(false);
  const auto lease = services_.disks.lease(services_.dispatch, queues_.lease, scan.volume.mountPoint,
                                           services_.paths.privateMountRoot, [revoked] { *revoked = true; });
  if (!lease) {
    throw QuillmarkError::make(QuillmarkErrorCode::snapshotMountFailed,
                               fmt::format("The mounts of \"{}\" cannot be watched", scan.volume.name));
  }
  const auto mounted = mounts_.mount(scan.volume, scan.snapshot.name, scan.snapshot.xid);
  try {
    const auto isCancelled = [&] { return *revoked || work_.mustEnd() || isUnwanted(); };
    SnapshotIndex::ShardedEntries tree = walk(scan, *mounted, std::move(rules), isCancelled);
    auditIndexing(services_, scan.volume, scan.snapshot.name, began,
                  fmt::format("{} · {} files", scan.label, tree.count()), nullptr);
    return tree;
  } catch (const std::exception& exception) {
    const Error failure = asError(exception);
    // What fails while its ground is taken away didn't fail by itself.
    if (*revoked || work_.mustEnd()) throw HistoryWork::cancelled(scan.snapshot.name);
    if (isUnwanted()) throw HistoryWork::claimed(scan.snapshot.name);
    if (!scan.ignoreExclusions) failures_.record(scan.volume, scan.snapshot, failure);
    auditIndexing(services_, scan.volume, scan.snapshot.name, began, scan.label, &failure);
    throw;
  }
}

SnapshotIndex::ShardedEntries SnapshotScans::walk(const SnapshotScan& scan, const IndexMounts::Mounted& mounted,
                                                  std::optional<ExclusionRules> rules,
                                                  const std::function<bool()>& isCancelled) {
  ProgressThrottle throttle(services_.dispatch, progressInterval);
  const VolumeUuid volume = scan.volume.key();
  ScanRequest request;
  request.root = mounted.path();
  request.lowPriority = scan.lowPriority;
  request.qos = scan.lowPriority ? QualityOfService::utility : QualityOfService::userInitiated;
  request.rules = std::move(rules);
  MemoryReturn::Held read(services_.memory);
  request.progress = [&](std::uint64_t files) {
    read.holds(files);
    const auto count = static_cast<std::int64_t>(files);
    if (count >= 0 && throttle.allows()) progress_.counted(volume, scan.snapshot.xid, count);
  };
  request.isCancelled = isCancelled;
  if (scan.lastChange) *scan.lastChange = lastChangeAt(mounted.path());
  SnapshotIndex::ShardedEntries tree = scanner_.scan(request);
  if (isCancelled()) throw HistoryWork::cancelled(scan.snapshot.name);
  // Somebody may have unmounted it before the walk opened it: what was read then is another tree.
  if (!mounted.stillHoldsSnapshot()) {
    throw historyError(fmt::format("Snapshot mount path {} was unmounted while it was read", mounted.path()));
  }
  read.holds(0);  // the caller does now
  return tree;
}

std::uint64_t SnapshotScans::lastChangeAt(const std::string& path) {
  const auto change = services_.calls.lastChange(path);
  if (!change) throw posixError("ask for the last change of", path, change.error());
  return *change;
}

}  // namespace quillmark
