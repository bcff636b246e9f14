#include "scheduling/FreeSpaceMeter.h"

#include <limits>

#include "platform/SnapshotCalls.h"
#include "platform/dispatch.h"
#include "scheduling/SchedulePersistence.h"
#include "scheduling/VolumeClockPersistence.h"
#include "snapshots/APFSManager.h"

namespace quillmark {
namespace {

std::int64_t bytesOf(std::uint64_t blocks, std::uint64_t blockSize) {
  constexpr auto most = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  if (blockSize != 0 && blocks > most / blockSize) return static_cast<std::int64_t>(most);
  return static_cast<std::int64_t>(blocks * blockSize);
}

}  // namespace

FreeSpaceMeter::FreeSpaceMeter(const SchedulerServices& services, const DeletionGate& gate)
    : services_(services), gate_(gate), state_(services.dispatch) {}

std::optional<std::string> FreeSpaceMeter::mountPathOf(const std::string& uuid) const {
  try {
    return services_.apfs.resolveVolume(uuid).mountPoint;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<Date> FreeSpaceMeter::nextPruneCheck(const VolumeUuid& volume, bool pruneOnLowSpace) {
  if (!pruneOnLowSpace || !services_.schedules.hasPolicy(volume) || !gate_.isOpen()) return std::nullopt;
  return state_.with([](const State& state) { return state.nextTickAt; });
}

std::optional<VolumeFreeSpaceState> FreeSpaceMeter::measure(const std::string& uuid,
                                                            const std::optional<std::string>& mountPath,
                                                            std::optional<std::int64_t> totalBytes) {
  const auto path = mountPath && !mountPath->empty() ? mountPath : mountPathOf(uuid);
  if (!path) return std::nullopt;
  const auto status = services_.calls.statfs(*path);
  // Once unmounted, the path tells of whatever lies below.
  if (!status || status->mntonname != *path) return std::nullopt;
  const VolumeUuid volume(uuid);
  const SchedulePolicy policy = services_.schedules.policy(volume);
  VolumeFreeSpaceState measured;
  measured.volumeUUID = uuid;
  measured.totalBytes = totalBytes ? *totalBytes : bytesOf(status->blocks, status->blockSize);
  measured.freeBytes = bytesOf(status->availableBlocks, status->blockSize);
  measured.lowSpaceBytesThreshold = policy.lowSpaceBytes;
  measured.nextPruneCheckAt = nextPruneCheck(volume, policy.pruneOnLowSpace);
  measured.firstSeenAt = services_.clocks.firstSeen(volume);
  state_.with([&](State& state) { state.states.insert_or_assign(volume, measured); });
  return measured;
}

std::optional<VolumeFreeSpaceState> FreeSpaceMeter::last(const VolumeUuid& volume) {
  return state_.with([&](const State& state) -> std::optional<VolumeFreeSpaceState> {
    const auto found = state.states.find(volume);
    return found == state.states.end() ? std::nullopt : std::optional(found->second);
  });
}

std::vector<VolumeFreeSpaceState> FreeSpaceMeter::states() {
  std::vector<VolumeFreeSpaceState> all;
  state_.with([&](const State& state) {
    for (const auto& [volume, measured] : state.states) all.push_back(measured);
  });
  return all;
}

bool FreeSpaceMeter::beginTick(FreeSpaceTickReason reason) {
  const Date now = services_.dispatch.clock().now();
  return state_.with([&](State& state) {
    const bool isRecent =
        state.lastTickAt && now >= *state.lastTickAt && now - *state.lastTickAt < leastTimeBetweenTicks;
    if (reason == FreeSpaceTickReason::diskEvent && isRecent) return false;
    state.lastTickAt = now;
    if (reason == FreeSpaceTickReason::timer) state.nextTickAt = now + tickInterval;
    return true;
  });
}

}  // namespace quillmark
