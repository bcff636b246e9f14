// HistorySchema: the history database's file, settings and tables. What can't be used, of another version or damaged, is
// thrown away: everything in it can be made again from the snapshots.
// Threads: for one opener at a time.
// Errors:  throws Error.
#pragma once

#include <memory>
#include <string>

#include "history/HistoryConnection.h"

namespace quillmark {

class HelperLog;
class Posix;

struct OpenedHistory {
  std::unique_ptr<HistoryConnection> connection;  // for writing
  bool didReset = false;
  bool needsBootstrap = false;
};

// The directory is made, and gets its attributes, on each call.
[[nodiscard]] OpenedHistory openHistory(Posix& posix, HelperLog& log, const std::string& path);
// For root alone, as far as that can be had.
void secureHistoryFiles(Posix& posix, HelperLog& log, const std::string& path);

// The name index of the baseline, which a first baseline makes after its rows.
void dropBaselineNameIndex(HistoryConnection& connection);
void createBaselineNameIndex(HistoryConnection& connection);

}  // namespace quillmark
