#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "base/Uuid.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/Outcomes.h"
#include "quill/QuillCommands.h"
#include "quill/VolumeChoice.h"
#include "wire/QuillmarkError.h"

namespace quillmark::cli {
namespace {

// By UUID and XID: the volume may have had another name when the snapshot was mounted.
std::string mountPathOf(CommandContext& context, const std::string& volume, const SnapshotRecord& snapshot) {
  const std::string root = context.paths.userMountRoot + "/";
  const std::string tail = fmt::format("-{}@snap-{}", VolumeUuid(volume).text(), snapshot.xid.value);
  for (const std::string& path : context.volumes.mountPoints()) {
    if (path.starts_with(root) && path.ends_with(tail)) return path;
  }
  throw QuillmarkError::make(QuillmarkErrorCode::snapshotUnmountFailed,
                             fmt::format("Snapshot \"{}\" is not mounted.", snapshot.name));
}

// What is meant by words that are paths or snapshots; the volume is looked at once, if at all.
class Meaning {
 public:
  Meaning(CommandContext& context, const std::optional<std::string>& volume) : context_(context), asked_(volume) {}

  [[nodiscard]] Outcome of(const std::string& word) {
    Outcome outcome{word, {}};
    try {
      if (word.find('/') != std::string::npos) {
        outcome.path = context_.volumes.absolutePath(word);
      } else {
        look();
        outcome.snapshot = snapshotMeant(snapshots_, word);
        outcome.path = mountPathOf(context_, volume_, *outcome.snapshot);
      }
    } catch (const Error& error) {
      outcome.error = error;
    }
    return outcome;
  }

 private:
  void look() {
    if (!volume_.empty()) return;
    const std::string volume = chooseVolume(context_.volumes, asked_);
    snapshots_ = snapshotsOf(context_, volume);
    volume_ = volume;
  }

  CommandContext& context_;
  const std::optional<std::string>& asked_;
  std::string volume_;
  std::vector<SnapshotRecord> snapshots_;
};

std::optional<Error> unmountOne(CommandContext& context, const std::string& path) {
  return ask(context, "unmounting the snapshot", UnmountSnapshot{.path = path}).warning;
}

void unmountSeveral(CommandContext& context, const std::vector<Outcome*>& outcomes) {
  UnmountSnapshots call;
  for (const Outcome* outcome : outcomes) call.paths.push_back(outcome->path);
  const auto told = itemsOf<SnapshotPathOutcome>(
      ask(context, fmt::format("unmounting {} snapshots", outcomes.size()), call).value, outcomes.size());
  for (std::size_t i = 0; i < outcomes.size(); ++i) {
    if (told[i].error) {
      outcomes[i]->error = errorOfItem(*told[i].error, QuillmarkErrorCode::snapshotUnmountFailed);
    }
  }
}

int unmountAlone(CommandContext& context, const Outcome& meant) {
  if (meant.error) throw Error(*meant.error);
  printResult(context, "path", meant.path, unmountOne(context, meant.path));
  return exitDone;
}

}  // namespace

int run(CommandContext& context, const UnmountRequest& request) {
  Meaning meaning(context, request.volume);
  std::vector<Outcome> outcomes;
  std::set<std::string> named;
  for (const std::string& word : request.snapshotsOrPaths) {
    Outcome outcome = meaning.of(word);
    if (outcome.error || named.insert(outcome.path).second) outcomes.push_back(std::move(outcome));
  }
  if (request.snapshotsOrPaths.size() == 1) return unmountAlone(context, outcomes.front());
  const auto one = [&](Outcome& outcome) { outcome.warning = unmountOne(context, outcome.path); };
  carryOut(outcomes, {one, [&](const auto& some) { unmountSeveral(context, some); }});
  return report(context, outcomes, "unmounted", [](const Outcome& outcome) { return outcome.path; });
}

}  // namespace quillmark::cli
