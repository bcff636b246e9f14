#include <fmt/format.h>

#include <algorithm>

#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/Outcomes.h"
#include "quill/QuillCommands.h"
#include "quill/SnapshotReference.h"
#include "quill/TerminalText.h"
#include "quill/TimeText.h"
#include "quill/VolumeChoice.h"
#include "scheduling/rules/SnapshotNameInfo.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

constexpr std::size_t mostNamed = 20;  // in a question

std::string nameOfVolume(CommandContext& context, const std::string& uuid) {
  for (const APFSVolume& volume : context.volumes.list(false)) {
    if (volume.id == uuid) return shownText("\"" + volume.name + "\"");
  }
  return uuid;
}

std::string lineOf(CommandContext& context, const SnapshotRecord& snapshot) {
  std::string line =
      fmt::format("  {}  {}", shownTime(context.clock, snapshot.createdAt), shownText(shortName(snapshot.name)));
  if (snapshot.isProtected) line += snapshot.isAutoProtected ? "  (auto-protected)" : "  (protected)";
  return line + "\n";
}

std::string questionOf(CommandContext& context, const std::string& volume, const std::vector<Outcome>& outcomes) {
  std::string question;
  std::size_t count = 0;
  for (const Outcome& outcome : outcomes) {
    if (!outcome.error && ++count <= mostNamed) question += lineOf(context, *outcome.snapshot);
  }
  if (count == 0) return {};
  if (count > mostNamed) question += fmt::format("  and {} more\n", count - mostNamed);
  const std::string what = count == 1 ? "this snapshot" : fmt::format("these {} snapshots", count);
  return question + fmt::format("Delete {} of {}? [y/N] ", what, nameOfVolume(context, volume));
}

void askFirst(CommandContext& context, const std::string& volume, const std::vector<Outcome>& outcomes) {
  const std::string question = questionOf(context, volume, outcomes);
  if (question.empty() || context.confirm(question)) return;
  throw clientError(ClientFault::declined, "Nothing was deleted.");
}

// Where no shell would take it apart.
bool isPlainWord(const std::string& text) {
  constexpr std::string_view safe = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_.:@%+=,/~-";
  return !text.empty() && text.find_first_not_of(safe) == std::string::npos && !text.starts_with('-') &&
         !text.starts_with('~');
}

// The snapshot and its volume for a command line that is shown, as they were typed where that can be.
std::string wordsFor(const Outcome& outcome, const std::optional<std::string>& volume, const std::string& uuid) {
  std::string words = isPlainWord(outcome.reference) ? outcome.reference : std::to_string(outcome.snapshot->xid.value);
  if (volume) words += " -v " + (isPlainWord(*volume) ? *volume : uuid);
  return words;
}

// What protects it, and the ways out. By the listing, which may be a moment older than the refusal.
std::string adviceFor(const SnapshotRecord& snapshot, const std::string& words) {
  const std::string name = shortName(snapshot.name);
  if (snapshot.isAutoProtected) {
    return fmt::format(
        "\"{}\" was made by another program, and this volume protects such snapshots. To delete it all the same:\n"
        "  quill delete --force {}",
        name, words);
  }
  if (!snapshot.isProtected) return {};
  return fmt::format(
      "\"{}\" was protected by somebody (quill log --kind protect tells by whom). To take that back:\n"
      "  quill unprotect {}\nTo delete it all the same:\n  quill delete --force {}",
      name, words, words);
}

void adviseOnProtection(Outcome& outcome, const std::optional<std::string>& volume, const std::string& uuid) {
  if (!outcome.error || QuillmarkError::codeOf(*outcome.error) != QuillmarkErrorCode::protectedSnapshot) return;
  outcome.error =
      Error(*outcome.error).withRecoverySuggestion(adviceFor(*outcome.snapshot, wordsFor(outcome, volume, uuid)));
}

void deleteOne(CommandContext& context, const std::string& volume, bool force, Outcome& outcome) {
  const DeleteSnapshot call{.name = outcome.name(), .volumeUUID = volume, .force = force};
  outcome.warning = ask(context, "deleting a snapshot", call).warning;
}

void takeOver(const SnapshotNameOutcome& told, Outcome& outcome) {
  if (told.error) outcome.error = errorOfItem(*told.error, QuillmarkErrorCode::snapshotDeleteFailed);
  if (told.auditWarning) outcome.warning = QuillmarkError::operationCompleted(*told.auditWarning);
}

void deleteSeveral(CommandContext& context, const std::string& volume, bool force,
                   const std::vector<Outcome*>& outcomes) {
  std::vector<SnapshotDeleteSpec> specs;
  for (const Outcome* outcome : outcomes) specs.push_back({.name = outcome->name(), .force = force});
  const DeleteSnapshots call{.specs = {encodeJson(specs)}, .volumeUUID = volume};
  const auto told = itemsOf<SnapshotNameOutcome>(
      ask(context, fmt::format("deleting {} snapshots", outcomes.size()), call).value, outcomes.size());
  for (std::size_t i = 0; i < outcomes.size(); ++i) takeOver(told[i], *outcomes[i]);
}

}  // namespace

int run(CommandContext& context, const DeleteRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  std::vector<Outcome> outcomes = outcomesOf(snapshotsOf(context, volume), request.snapshots);
  if (context.confirm && !request.yes) askFirst(context, volume, outcomes);
  const auto one = [&](Outcome& outcome) { deleteOne(context, volume, request.force, outcome); };
  const auto several = [&](const auto& some) { deleteSeveral(context, volume, request.force, some); };
  carryOut(outcomes, {one, several});
  for (Outcome& outcome : outcomes) adviseOnProtection(outcome, request.volume, volume);
  return report(context, outcomes, "deleted", &Outcome::name);
}

}  // namespace quillmark::cli
