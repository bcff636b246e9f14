// The files of a log of JSON lines as its writer and its readers find them.
// Threads: as the file calls given.
// Errors:  thrown as Error.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/Error.h"
#include "journal/JSONLinesFormat.h"

namespace quillmark {

class Posix;

inline constexpr std::string_view platformLogSubsystem = "com.harrowfern.quillmark";

// "fsync(/var/lib/quillmark/activity.log) failed: Input/output error"; operation is all before " failed".
[[nodiscard]] Error jsonLinesError(const std::string& operation, int error);

// Archives by ascending name, which is their age, then the current file. Only regular files; empty without a directory.
[[nodiscard]] std::vector<LogFile> listLogFiles(Posix& posix, const JSONLinesDescription& description);

}  // namespace quillmark
