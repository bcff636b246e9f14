#include <fmt/format.h>

#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/Outcomes.h"
#include "quill/QuillCommands.h"
#include "quill/VolumeChoice.h"

namespace quillmark::cli {
namespace {

Answer<std::string> mountOne(CommandContext& context, const std::string& volume, const SnapshotRecord& snapshot) {
  return ask(context, "mounting the snapshot",
             MountSnapshot{.name = snapshot.name, .volumeUUID = volume, .xid = snapshot.xid.value});
}

void takeOver(const SnapshotMountOutcome& told, Outcome& outcome) {
  if (told.path) outcome.path = *told.path;
  if (told.path) return;
  outcome.error =
      errorOfItem(told.error.value_or("The snapshot was not mounted."), QuillmarkErrorCode::snapshotMountFailed);
}

void mountSeveral(CommandContext& context, const std::string& volume, const std::vector<Outcome*>& outcomes) {
  std::vector<SnapshotMountSpec> specs;
  for (const Outcome* outcome : outcomes) {
    specs.push_back({.name = outcome->name(), .volumeUUID = volume, .xid = outcome->snapshot->xid});
  }
  const auto told = itemsOf<SnapshotMountOutcome>(
      ask(context, fmt::format("mounting {} snapshots", specs.size()), MountSnapshots{.specs = {encodeJson(specs)}})
          .value,
      outcomes.size());
  for (std::size_t i = 0; i < outcomes.size(); ++i) takeOver(told[i], *outcomes[i]);
}

int mountAlone(CommandContext& context, const std::string& volume, const std::string& reference) {
  const auto mounted = mountOne(context, volume, snapshotMeant(snapshotsOf(context, volume), reference));
  printResult(context, "path", mounted.value, mounted.warning);
  return exitDone;
}

}  // namespace

int run(CommandContext& context, const MountRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  if (request.snapshots.size() == 1) return mountAlone(context, volume, request.snapshots.front());
  std::vector<Outcome> outcomes = outcomesOf(snapshotsOf(context, volume), request.snapshots);
  const auto one = [&](Outcome& outcome) {
    auto mounted = mountOne(context, volume, *outcome.snapshot);
    outcome.path = std::move(mounted.value);
    outcome.warning = std::move(mounted.warning);
  };
  carryOut(outcomes, {one, [&](const auto& some) { mountSeveral(context, volume, some); }});
  return report(context, outcomes, "mounted", [](const Outcome& outcome) { return outcome.path; });
}

}  // namespace quillmark::cli
