#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/QuillCommands.h"
#include "quill/VolumeChoice.h"

namespace quillmark::cli {
namespace {

// What became of one reference. A name when it was resolved; deleted unless there is an error.
struct Outcome {
  std::string reference;
  std::string name = {};
  std::optional<Error> error = {};
  std::optional<Error> warning = {};
};

std::vector<Outcome> resolveAll(const std::vector<SnapshotRecord>& snapshots,
                                const std::vector<std::string>& references) {
  std::vector<Outcome> outcomes;
  std::set<std::string> named;
  for (const std::string& reference : references) {
    Outcome outcome{reference};
    try {
      outcome.name = snapshotMeant(snapshots, reference).name;
      if (!named.insert(outcome.name).second) continue;  // named twice, deleted once
    } catch (const Error& error) {
      outcome.error = error;
    }
    outcomes.push_back(std::move(outcome));
  }
  return outcomes;
}

std::string jsonOf(const Outcome& outcome) {
  std::string text = "{\"reference\":" + jsonString(outcome.reference);
  if (!outcome.name.empty()) text += ",\"name\":" + jsonString(outcome.name);
  text += fmt::format(",\"deleted\":{}", !outcome.error);
  if (outcome.error) text += ",\"error\":" + errorJson(*outcome.error);
  if (outcome.warning) text += ",\"warning\":" + errorJson(*outcome.warning);
  return text + "}";
}

// Without the helper the others would fail alike.
bool endsTheWork(const Error& error) { return exitCodeOf(error) == exitNotReachable; }

void deleteOne(CommandContext& context, const std::string& volume, bool force, Outcome& outcome) {
  try {
    outcome.warning =
        ask(context, "deleting a snapshot", DeleteSnapshot{.name = outcome.name, .volumeUUID = volume, .force = force})
            .warning;
  } catch (const Error& error) {
    outcome.error = error;
  }
}

int report(CommandContext& context, const std::vector<Outcome>& outcomes) {
  int worst = exitDone;
  std::string json;
  for (const Outcome& outcome : outcomes) {
    json += (json.empty() ? "" : ",") + jsonOf(outcome);
    if (outcome.error) worst = std::max(worst, static_cast<int>(exitCodeOf(*outcome.error)));
    if (outcome.error && !context.output.json()) context.output.warn(*outcome.error);
    if (outcome.warning) context.output.warn(*outcome.warning);
    if (!outcome.error && !context.output.json()) context.output.line(outcome.name);
  }
  if (context.output.json()) context.output.jsonText("[" + json + "]");
  return worst;
}

}  // namespace

int run(CommandContext& context, const DeleteRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  std::vector<Outcome> outcomes = resolveAll(snapshotsOf(context, volume), request.snapshots);
  std::optional<Error> lost;
  for (Outcome& outcome : outcomes) {
    if (outcome.error) continue;
    if (lost) {
      outcome.error = *lost;
      continue;
    }
    deleteOne(context, volume, request.force, outcome);
    if (outcome.error && endsTheWork(*outcome.error)) {
      lost = clientError(ClientFault::helperNotReachable,
                         "The helper was lost before this snapshot's turn: it was not deleted.");
    }
  }
  return report(context, outcomes);
}

}  // namespace quillmark::cli
