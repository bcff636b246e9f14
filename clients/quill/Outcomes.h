// What becomes of the snapshots and paths that one command is given: each has its own fate, the exit code is the worst.
// Threads: as the commands.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quill/QuillCommands.h"
#include "wire/Json.h"
#include "wire/QuillmarkError.h"
#include "wire/Records.h"

namespace quillmark::cli {

struct Outcome {
  std::string reference;                   // as it was given
  std::optional<SnapshotRecord> snapshot;  // once it is known
  std::string path = {};                   // of a mount
  std::optional<Error> error = {};         // absent: done
  std::optional<Error> warning = {};

  [[nodiscard]] std::string name() const { return snapshot ? snapshot->name : std::string(); }
};

// One for each reference; a snapshot that is named twice is there once. A reference that means none has its error.
[[nodiscard]] std::vector<Outcome> outcomesOf(const std::vector<SnapshotRecord>& snapshots,
                                              const std::vector<std::string>& references);

// How the work is done on one outcome, and on several by one call. Both throw for what fails as a whole; several() may be
// empty.
struct OutcomeWork {
  std::function<void(Outcome&)> one;
  std::function<void(const std::vector<Outcome*>&)> several;
};
// Works on all that have no error yet. Without the helper the rest isn't tried, and says so.
void carryOut(std::vector<Outcome>& outcomes, const OutcomeWork& work);

// An item's failure in the reply to a call with many: its sentence alone. The sentences that are known give their codes,
// any other gets the command's own.
[[nodiscard]] Error errorOfItem(const std::string& sentence, QuillmarkErrorCode otherwise);

void requireCount(std::size_t given, std::size_t expected);
// The items of such a reply, as many as were asked for. Throws answerMalformed for another number.
template <class Item>
[[nodiscard]] std::vector<Item> itemsOf(const std::string& reply, std::size_t count) {
  std::vector<Item> items = decodeJson<std::vector<Item>>(reply);
  requireCount(items.size(), count);
  return items;
}

// Prints the value of each that was done and the error of each that wasn't; as JSON an array of objects, in which `done`
// tells whether it was. The worst exit code of all.
[[nodiscard]] int report(CommandContext& context, const std::vector<Outcome>& outcomes, std::string_view done,
                         const std::function<std::string(const Outcome&)>& valueOf);

}  // namespace quillmark::cli
