#include "quill/IndexWait.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/clock.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/IndexStates.h"
#include "quill/Schedules.h"
#include "scheduling/rules/HelperSettings.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

// What the helper last complained of may be older than the wait.
constexpr std::chrono::seconds benefitOfDoubt{3};
constexpr std::chrono::milliseconds firstSign{400};
constexpr std::chrono::milliseconds glance{1500};

Error notIndexed(const std::string& why) {
  return clientError(ClientFault::notIndexed, "The snapshot isn't indexed: " + why, "See: quill index status");
}

bool isIndexed(CommandContext& context, const std::string& volumeUUID, const std::string& name) {
  const auto snapshots = decodeJson<std::vector<SnapshotRecord>>(
      context.helper.connection().call(ListSnapshots{.volumeUUID = volumeUUID}).value);
  const auto found = std::find_if(snapshots.begin(), snapshots.end(),
                                  [&](const SnapshotRecord& snapshot) { return snapshot.name == name; });
  if (found == snapshots.end()) throw notIndexed("it is gone.");
  return found->isIndexed;
}

}  // namespace

void requireIndexing(CommandContext& context, const std::string& volumeUUID) {
  HelperConnection& helper = context.helper.connection();
  const auto settings = decodeJson<HelperSettings>(helper.call(GetHelperSettings{}).value);
  if (settings.indexingMode == IndexingMode::disabled) {
    throw clientError(ClientFault::notIndexed, "Nothing is indexed by itself: that is switched off.",
                      "To switch it on: quill settings set indexingMode fullScan");
  }
  if (const auto policy = scheduleOf(schedulesOf(context), volumeUUID); policy && !policy->tracked.value_or(true)) {
    throw clientError(ClientFault::notIndexed, "Nothing is indexed by itself on this volume: it isn't tracked.",
                      "To have it tracked: quill schedule set --tracked on");
  }
}

void waitForIndex(CommandContext& context, IndexFollower& follower, const std::string& volumeUUID,
                  const std::string& snapshotName) {
  context.leaveIndexingAtInterrupt();
  const MonotonicTime doubtful = after(context.clock.monotonic(), benefitOfDoubt);
  follower.followUntil([&] {
    if (isIndexed(context, volumeUUID, snapshotName)) return true;
    if (context.clock.monotonic() < doubtful || follower.isRunning()) return false;
    if (const auto failure = indexFailureOf(context, volumeUUID)) throw notIndexed(*failure);
    return false;
  });
}

void glanceAtIndex(CommandContext& context, const std::string& volumeUUID, const std::string& snapshotName) {
  try {
    IndexFollower follower(context, {volumeUUID});
    const auto isOver = [&] { return isIndexed(context, volumeUUID, snapshotName); };
    if (follower.followUntil(isOver, firstSign)) return;
    if (!follower.heardAnything() || follower.followUntil(isOver, glance)) return;
    context.output.note("The helper indexes it now. See: quill index");
  } catch (const Error&) {
    // The snapshot was taken, which is what was asked for.
  }
}

}  // namespace quillmark::cli
