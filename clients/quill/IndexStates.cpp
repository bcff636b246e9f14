#include "quill/IndexStates.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/Text.h"
#include "quill/CommandSteps.h"
#include "quill/IndexText.h"
#include "quill/Schedules.h"
#include "scheduling/rules/HelperSettings.h"
#include "wire/Json.h"
#include "wire/Rpc.h"

namespace quillmark::cli {
namespace {

// The runs that the helper replays to whoever asks for its version.
class RunsUnderWay final : private HelperConnection::Listener {
 public:
  explicit RunsUnderWay(HelperConnection& helper) {
    helper.listen(this);
    try {
      (void)helper.call(HelperVersion{});
    } catch (...) {
      helper.listen(nullptr);
      throw;
    }
    helper.listen(nullptr);
  }
  [[nodiscard]] std::optional<IndexPush> of(const std::string& volumeUUID) const {
    std::optional<IndexPush> last;
    for (const IndexPush& run : runs_) {
      if (equalsIgnoringAsciiCase(run.volumeUUID, volumeUUID)) last = run;
    }
    return last && last->phase != "done" ? last : std::nullopt;
  }

 private:
  void told(const RpcIncoming& push) override {
    if (auto run = indexPushIn(push)) runs_.push_back(*std::move(run));
  }
  void quiet() override {}

  std::vector<IndexPush> runs_;
};

struct Facts {
  HelperSettings settings;
  Schedules schedules;
  HelperSubsystemHealth history;
};

// A failure names its volume by the UUID in brackets.
std::optional<std::string> failureIn(const HelperSubsystemHealth& history, const std::string& volumeUUID) {
  if (history.state == HelperSubsystemState::healthy || !history.detail) return std::nullopt;
  const std::string place = "[" + asciiLower(volumeUUID) + "]";
  constexpr std::string_view between = " | ";
  for (std::string_view rest = *history.detail; !rest.empty();) {
    const std::string_view part = rest.substr(0, rest.find(between));
    if (asciiLower(part).find(place) != std::string::npos) return std::string(part);
    rest.remove_prefix(std::min(rest.size(), part.size() + between.size()));
  }
  return std::nullopt;
}

HelperSubsystemHealth historyHealth(HelperConnection& helper) {
  return decodeJson<HelperHealthStatus>(helper.call(HelperHealth{}).value).history;
}

IndexState stateOf(const VolumeIndex& index, const Facts& facts) {
  const auto policy = scheduleOf(facts.schedules, index.volumeUUID);
  if (facts.history.state == HelperSubsystemState::unavailable) return IndexState::unavailable;
  if (index.running) return IndexState::indexing;
  if (index.snapshots == 0) return IndexState::empty;
  if (policy && !policy->tracked.value_or(true)) return IndexState::untracked;
  if (index.waiting > 0) {
    return facts.settings.indexingMode == IndexingMode::disabled ? IndexState::off : IndexState::waiting;
  }
  return index.outside > 0 ? IndexState::partial : IndexState::current;
}

std::string detailOf(const VolumeIndex& index, const Facts& facts) {
  if (index.running) return fmt::format("{}: {} files so far", index.runningName, grouped(index.running->files));
  if (const auto failure = failureIn(facts.history, index.volumeUUID)) return *failure;
  if (index.state == IndexState::unavailable) return facts.history.detail.value_or("");
  if (index.state == IndexState::partial) return "quill index rebuild takes in what is older than the index";
  return {};
}

VolumeIndex indexOf(CommandContext& context, const std::string& volumeUUID, const RunsUnderWay& runs,
                    const Facts& facts) {
  const auto snapshots = snapshotsOf(context, volumeUUID);
  VolumeIndex index = countedIndex(snapshots);
  index.volumeUUID = volumeUUID;
  index.name = volumeNameOf(context, volumeUUID);
  index.running = runs.of(volumeUUID);
  for (const SnapshotRecord& snapshot : snapshots) {
    if (index.running && snapshot.xid == index.running->xid) index.runningName = shownNameOf(snapshot);
  }
  index.state = stateOf(index, facts);
  index.detail = detailOf(index, facts);
  return index;
}

Cell stateCell(IndexState state) {
  const bool isGood = state == IndexState::current || state == IndexState::indexing;
  const bool isBad = state == IndexState::unavailable;
  const bool isPlain = state == IndexState::empty || state == IndexState::off || state == IndexState::untracked;
  return {std::string(word(state)), std::nullopt,
          isGood    ? Tone::good
          : isBad   ? Tone::bad
          : isPlain ? Tone::plain
                    : Tone::doubtful};
}

std::string jsonOf(const VolumeIndex& index) {
  std::string running;
  if (index.running) {
    running = fmt::format(R"(,"running":{{"xid":{},"phase":{},"files":{}}})", index.running->xid.value,
                          jsonString(index.running->phase), index.running->files);
  }
  return fmt::format(
      R"({{"volumeUUID":{},"state":"{}","snapshots":{},"indexed":{},"waiting":{},"outside":{},"detail":{}{}}})",
      jsonString(index.volumeUUID), word(index.state), index.snapshots, index.indexed, index.waiting, index.outside,
      jsonString(index.detail), running);
}

}  // namespace

std::string_view word(IndexState state) {
  switch (state) {
    case IndexState::current: return "current";
    case IndexState::indexing: return "indexing";
    case IndexState::waiting: return "waiting";
    case IndexState::partial: return "partial";
    case IndexState::off: return "off";
    case IndexState::untracked: return "untracked";
    case IndexState::empty: return "empty";
    case IndexState::unavailable: return "unavailable";
  }
  return "";
}

VolumeIndex countedIndex(const std::vector<SnapshotRecord>& snapshots) {
  VolumeIndex index;
  Xid newest;
  for (const SnapshotRecord& snapshot : snapshots) {
    if (!snapshot.isIndexed) continue;
    ++index.indexed;
    newest = std::max(newest, snapshot.xid);
  }
  index.snapshots = snapshots.size();
  for (const SnapshotRecord& snapshot : snapshots) {
    if (snapshot.isIndexed) continue;
    ++(snapshot.xid > newest ? index.waiting : index.outside);
  }
  return index;
}

std::vector<std::string> indexableVolumes(CommandContext& context) {
  std::vector<std::string> volumes;
  for (const APFSVolume& volume : context.volumes.list(false)) {
    if (!volume.role || !equalsIgnoringAsciiCase(*volume.role, "backup")) volumes.push_back(volume.id);
  }
  return volumes;
}

std::optional<std::string> indexFailureOf(CommandContext& context, const std::string& volumeUUID) {
  const HelperSubsystemHealth history = historyHealth(context.helper.connection());
  if (history.state == HelperSubsystemState::unavailable) return history.detail.value_or("unavailable");
  return failureIn(history, volumeUUID);
}

std::vector<VolumeIndex> indexesOf(CommandContext& context, const std::optional<std::string>& volume) {
  HelperConnection& helper = context.helper.connection();
  const Facts facts{decodeJson<HelperSettings>(helper.call(GetHelperSettings{}).value), schedulesOf(context),
                    historyHealth(helper)};
  const RunsUnderWay runs(helper);
  std::vector<VolumeIndex> indexes;
  for (const std::string& uuid : volume ? std::vector{*volume} : indexableVolumes(context)) {
    indexes.push_back(indexOf(context, uuid, runs, facts));
  }
  return indexes;
}

Table tableOf(const std::vector<VolumeIndex>& indexes, bool forTerminal) {
  using enum Column::Align;
  Table table{{{.head = "VOLUME", .mayBeCut = true},
               {.head = "STATE"},
               {.head = "SNAPSHOTS", .align = right},
               {.head = "INDEXED", .align = right},
               {.head = "WAITING", .align = right, .mayBeLeft = true}},
              {}};
  if (!forTerminal) table.columns.push_back({.head = "UUID"});
  table.columns.push_back({.head = "DETAIL", .mayBeCut = true, .mayBeLeft = true});
  for (const VolumeIndex& index : indexes) {
    std::vector<Cell> row{{index.name},
                          stateCell(index.state),
                          {std::to_string(index.snapshots)},
                          {std::to_string(index.indexed)},
                          {std::to_string(index.waiting)}};
    if (!forTerminal) row.push_back({index.volumeUUID});
    row.push_back({index.detail});
    table.rows.push_back(std::move(row));
  }
  return table;
}

std::string jsonOf(const std::vector<VolumeIndex>& indexes) {
  std::vector<std::string> all;
  for (const VolumeIndex& index : indexes) all.push_back(jsonOf(index));
  return "[" + join(all, ",") + "]";
}

}  // namespace quillmark::cli
