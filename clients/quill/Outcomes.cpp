#include "quill/Outcomes.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <set>

#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/SnapshotReference.h"

namespace quillmark::cli {
namespace {

// So that one call stays far below what a request line may hold, and a lost connection leaves few in doubt.
constexpr std::size_t mostAtOnce = 200;

// Without the helper the others would fail alike.
bool endsTheWork(const Error& error) { return exitCodeOf(error) == exitNotReachable; }

Error neverTried() {
  return clientError(ClientFault::helperNotReachable,
                     "The helper was lost before this snapshot's turn: nothing was done to it.");
}

void failAll(const std::vector<Outcome*>& outcomes, const Error& error) {
  for (Outcome* outcome : outcomes) outcome->error = error;
}

void carryOutSome(const std::vector<Outcome*>& some, const OutcomeWork& work) {
  try {
    if (some.size() == 1) return work.one(*some.front());
    work.several(some);
  } catch (const Error& error) {
    failAll(some, error);
  }
}

std::string jsonOf(const Outcome& outcome, std::string_view done) {
  std::string text = "{\"reference\":" + jsonString(outcome.reference);
  if (outcome.snapshot) text += ",\"name\":" + jsonString(outcome.name());
  if (!outcome.path.empty()) text += ",\"path\":" + jsonString(outcome.path);
  text += fmt::format(",\"{}\":{}", done, !outcome.error);
  if (outcome.error) text += ",\"error\":" + errorJson(*outcome.error);
  if (outcome.warning) text += ",\"warning\":" + errorJson(*outcome.warning);
  return text + "}";
}

// Among several the person must see whose failure it is; what quill says itself names its subject.
Error withSubject(const Error& error, const Outcome& outcome) {
  const std::string subject = outcome.snapshot ? shortName(outcome.name()) : outcome.path;
  if (subject.empty() || error.description().find(subject) != std::string::npos) return error;
  return Error(error.domain(), error.code(), subject + ": " + error.description())
      .withRecoverySuggestion(adviceOn(error));
}

void printOutcome(Output& output, const Outcome& outcome, bool alone, const std::string& value) {
  if (outcome.error) return output.warn(alone ? *outcome.error : withSubject(*outcome.error, outcome));
  output.line(value);
}

struct KnownSentence {
  std::string_view part;
  QuillmarkErrorCode code;
};

using enum QuillmarkErrorCode;
constexpr std::array knownSentences{
    KnownSentence{"Refusing to delete a protected snapshot.", protectedSnapshot},
    KnownSentence{"Refusing to delete OS-managed snapshot", notOurSnapshot},
    KnownSentence{"is a macOS system snapshot, so Quillmark will not", notOurSnapshot},
    KnownSentence{"has the APFS Backup role", volumeNotAPFSData},
    KnownSentence{"This snapshot is in use:", snapshotInUse},
    KnownSentence{"Snapshot no longer exists", snapshotNotFound},
    KnownSentence{"Snapshot name is malformed", invalidSnapshotUUID},
    KnownSentence{"Volume UUID is malformed", invalidVolumeUUID},
    KnownSentence{"Path must resolve under /Volumes", invalidMountPath},
    KnownSentence{"Refusing to unmount a path that is not a read-only APFS snapshot mount", invalidMountPath},
    KnownSentence{"Composed mount path", invalidMountPath},
    KnownSentence{"is already used by another snapshot or volume", invalidMountPath},
    KnownSentence{"Quillmark helper is restarting", helperRestarting},
};

}  // namespace

std::vector<Outcome> outcomesOf(const std::vector<SnapshotRecord>& snapshots,
                                const std::vector<std::string>& references) {
  std::vector<Outcome> outcomes;
  std::set<std::string> named;
  for (const std::string& reference : references) {
    Outcome outcome{reference, {}};
    try {
      outcome.snapshot = snapshotMeant(snapshots, reference);
      if (!named.insert(outcome.name()).second) continue;
    } catch (const Error& error) {
      outcome.error = error;
    }
    outcomes.push_back(std::move(outcome));
  }
  return outcomes;
}

void carryOut(std::vector<Outcome>& outcomes, const OutcomeWork& work) {
  std::vector<Outcome*> waiting;
  for (Outcome& outcome : outcomes) {
    if (!outcome.error) waiting.push_back(&outcome);
  }
  const std::size_t step = work.several ? mostAtOnce : 1;
  for (std::size_t begin = 0; begin < waiting.size(); begin += step) {
    const auto end = std::min(begin + step, waiting.size());
    const std::vector<Outcome*> some(&waiting[begin], &waiting[begin] + (end - begin));
    carryOutSome(some, work);
    if (!some.front()->error || !endsTheWork(*some.front()->error)) continue;
    return failAll({&waiting[begin] + some.size(), waiting.data() + waiting.size()}, neverTried());
  }
}

Error errorOfItem(const std::string& sentence, QuillmarkErrorCode otherwise) {
  const auto isMeant = [&](const KnownSentence& known) { return sentence.find(known.part) != std::string::npos; };
  const auto found = std::find_if(knownSentences.begin(), knownSentences.end(), isMeant);
  return QuillmarkError::make(found == knownSentences.end() ? otherwise : found->code, sentence);
}

void requireCount(std::size_t given, std::size_t expected) {
  if (given == expected) return;
  throw clientError(ClientFault::answerMalformed,
                    fmt::format("The helper told the outcome of {} instead of {}.", given, expected),
                    "Whether the rest was carried out isn't known: look before you repeat it.");
}

int report(CommandContext& context, const std::vector<Outcome>& outcomes, std::string_view done,
           const std::function<std::string(const Outcome&)>& valueOf) {
  int worst = exitDone;
  std::string json;
  for (const Outcome& outcome : outcomes) {
    json += (json.empty() ? "" : ",") + jsonOf(outcome, done);
    if (outcome.error) worst = std::max(worst, static_cast<int>(exitCodeOf(*outcome.error)));
    if (outcome.warning) context.output.warn(*outcome.warning);
    if (!context.output.json()) printOutcome(context.output, outcome, outcomes.size() == 1, valueOf(outcome));
  }
  if (context.output.json()) context.output.jsonText("[" + json + "]");
  return worst;
}

}  // namespace quillmark::cli
