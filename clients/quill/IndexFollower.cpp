#include "quill/IndexFollower.h"

#include <fmt/format.h>

#include <utility>

#include "base/Text.h"
#include "platform/clock.h"
#include "quill/CommandSteps.h"
#include "quill/SnapshotReference.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

constexpr std::chrono::milliseconds moment{300};
// After so much silence it is time to look.
constexpr std::chrono::seconds longSilence{2};
// Between lines where no bar is.
constexpr std::chrono::seconds betweenLines{10};

}  // namespace

IndexFollower::IndexFollower(CommandContext& context, const std::vector<std::string>& volumeUUIDs)
    : context_(context), helper_(context.helper.connection()),
      live_(context.output.json() ? nullptr : context.liveLine()) {
  for (const std::string& uuid : volumeUUIDs) learn(asciiLower(uuid));
  helper_.listen(this);
}

IndexFollower::~IndexFollower() { helper_.listen(nullptr); }

void IndexFollower::learn(const std::string& volumeUUID) {
  Volume& volume = volumes_[volumeUUID];
  for (const SnapshotRecord& snapshot :
       decodeJson<std::vector<SnapshotRecord>>(helper_.call(ListSnapshots{.volumeUUID = volumeUUID}).value)) {
    volume.snapshots[snapshot.xid] = snapshot;
  }
  volume.expected = indexRecordsOf(context_, volumeUUID).lastFiles;
}

void IndexFollower::followUntil(const std::function<bool()>& isOver) {
  while (!followUntil(isOver, std::chrono::hours(1))) {
  }
}

bool IndexFollower::followUntil(const std::function<bool()>& isOver, std::chrono::nanoseconds most) {
  const MonotonicTime end = after(context_.clock.monotonic(), most);
  while (!isOver()) {
    somethingEnded_ = false;
    for (MonotonicTime heard = context_.clock.monotonic(); !somethingEnded_;) {
      if (helper_.hear(moment)) {
        for (const std::string& volume : std::exchange(unknown_, {})) learn(volume);
        heard = context_.clock.monotonic();
        continue;
      }
      quiet();
      if (context_.clock.monotonic() >= end) return isOver();
      if (runs_.empty() || context_.clock.monotonic() - heard >= longSilence) break;
    }
  }
  return true;
}

void IndexFollower::told(const RpcIncoming& push) {
  const std::optional<IndexPush> index = indexPushIn(push);
  if (!index) return;
  const std::string volume = asciiLower(index->volumeUUID);
  if (!volumes_.contains(volume)) return;
  heardAnything_ = true;
  const auto known = runs_.find(volume);
  if (known != runs_.end() && (index->phase == "done" || known->second.xid != index->xid)) {
    tellEnd(known->second);
    runs_.erase(known);
    somethingEnded_ = true;
  }
  if (index->phase == "done") {
    somethingEnded_ = true;
    return;
  }
  const MonotonicTime now = context_.clock.monotonic();
  const auto [run, isNew] = runs_.try_emplace(volume, Run{volume, index->xid, 0, now, now, now});
  if (std::exchange(run->second.files, index->files) != index->files) run->second.countedAt = now;
  if (!volumes_[volume].snapshots.contains(index->xid)) unknown_.insert(volume);
  if (isNew && !live_) say(fmt::format("indexing {}", nameOf(run->second)));
  draw(run->second);
}

void IndexFollower::quiet() {
  for (const auto& [volume, run] : runs_) draw(run);
}

void IndexFollower::draw(const Run& run) {
  const MonotonicTime now = context_.clock.monotonic();
  const IndexRun shown{nameOf(run), run.files, now - run.began, volumes_[run.volume].expected, now - run.countedAt};
  if (live_) return live_->show(barOf(shown, live_->width()));
  Run& kept = runs_.at(run.volume);
  if (now - kept.toldAt < betweenLines) return;
  kept.toldAt = now;
  say(fmt::format("{}: {} files so far", shown.name, grouped(shown.files)));
}

// The last count of a run is never pushed: the record has it, once it is written.
void IndexFollower::tellEnd(const Run& run) {
  Volume& volume = volumes_[run.volume];
  const IndexRecords records = indexRecordsOf(context_, run.volume);
  volume.expected = records.lastFiles;
  const auto snapshot = volume.snapshots.find(run.xid);
  const auto record = records.bySnapshot.find(snapshot == volume.snapshots.end() ? "" : snapshot->second.name);
  if (record == records.bySnapshot.end()) return say(fmt::format("indexed {}", nameOf(run)));
  const auto& [files, durationMs, error] = record->second;
  if (error) return say(fmt::format("{} could not be indexed: {}", nameOf(run), *error));
  say(fmt::format("indexed {}: {} files in {}", nameOf(run), grouped(files),
                  shownSpan(std::chrono::milliseconds(durationMs))));
}

void IndexFollower::say(const std::string& text) {
  if (context_.output.json()) return;
  if (live_) live_->clear();
  context_.output.note(text);
}

std::string IndexFollower::nameOf(const Run& run) const {
  const auto& known = volumes_.at(run.volume).snapshots;
  const auto snapshot = known.find(run.xid);
  return snapshot == known.end() ? fmt::format("XID {}", run.xid.value) : shownNameOf(snapshot->second);
}

}  // namespace quillmark::cli
