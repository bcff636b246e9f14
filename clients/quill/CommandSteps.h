// Steps that several commands share.
// Threads: as the commands.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "quill/QuillCommands.h"
#include "wire/Records.h"

namespace quillmark::cli {

// Makes the call while the person is told what is waited for.
template <class Command>
[[nodiscard]] auto ask(CommandContext& context, const std::string& waitedFor, const Command& command) {
  const auto busy = context.busy(waitedFor);
  return context.helper.connection().call(command);
}

// The JSON text of a volume's listing, as the helper gave it.
[[nodiscard]] std::string listingOf(CommandContext& context, const std::string& volumeUUID);
[[nodiscard]] std::vector<SnapshotRecord> snapshotsOf(CommandContext& context, const std::string& volumeUUID);

// The snapshot that the reference means. One of the operating system's, which no listing holds, passes with XID 0, so
// that the helper's refusal reaches the person.
[[nodiscard]] SnapshotRecord snapshotMeant(const std::vector<SnapshotRecord>& snapshots, const std::string& reference);

// What a terminal shows of a snapshot: its label where it has one, else its name without what all of ours begin with.
[[nodiscard]] std::string shownNameOf(const SnapshotRecord& snapshot);

// Prints the value of a completed operation: the text, or {"<key>":…} with "warning" where there is one. The warning
// goes to standard error as well.
void printResult(CommandContext& context, const std::string& key, const std::string& value,
                 const std::optional<Error>& warning);

// "54.2 GiB"
[[nodiscard]] std::string shownSize(std::uint64_t bytes);

}  // namespace quillmark::cli
