// A comparison as people and programs read it.
// Threads: pure.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "base/FunctionRef.h"
#include "wire/DiffResult.h"

namespace quillmark::cli {

// "added", "deleted", "modified", "replaced", "moved". Throws wrongUse for another word.
[[nodiscard]] DiffResult::ChangeKind changeKindMeant(std::string_view word);

enum class DiffForm { rows, names, tree, summary };
struct DiffStyle {
  DiffForm form = DiffForm::rows;
  bool forTerminal = false;
  bool color = false;
};

// Hands the lines over, made harmless, in pieces of about 64 KiB.
//   on a terminal   a sign, the path, sizes:  + - ~ ↻ >  (added, deleted, modified, replaced, moved)
//   anywhere else   8 words: kind, type, path, old path, old size, new size, old and new time of modification (ns)
// A tree has a line for each item of both snapshots, blank signs ("same") for those that didn't change.
void printDiff(const DiffResult& result, const DiffStyle& style, FunctionRef<void(std::string_view)> sink);

// {"added":{"count":…,"bytes":…},…,"truncated":…,"totalRowCount":…}; bytes by which files grew or shrank.
[[nodiscard]] std::string summaryJson(const DiffResult& result);

}  // namespace quillmark::cli
