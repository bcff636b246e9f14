// What reading a log needs beside its reader.
// Threads: one thread at a time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "journal/JSONLinesFormat.h"
#include "platform/PlatformLog.h"
#include "quill/QuillCommands.h"

namespace quillmark::cli {

// Keeps what a read complains of, for the person; past a few lines their number is enough.
class Complaints final : public PlatformLog {
 public:
  void log(PlatformLogType type, std::string_view subsystem, std::string_view category,
           std::string_view message) override;
  void forget() { told_.clear(); }
  void tell(Output& output, std::int64_t corruptLines);

 private:
  std::vector<std::string> told_;
};

// The file that remembers how far was read.
// Ownership: borrows the context and the path; without a path there is no such file.
class CursorFile final {
 public:
  CursorFile(CommandContext& context, const std::optional<std::string>& path) : context_(context), path_(path) {}

  // Absent on the first day. Throws wrongUse for a file of somebody else's, which save() would replace.
  [[nodiscard]] std::optional<JSONLinesCursor> load() const;
  void save(const std::optional<JSONLinesCursor>& cursor);

 private:
  CommandContext& context_;
  const std::optional<std::string>& path_;
  std::optional<JSONLinesCursor> saved_;
};

}  // namespace quillmark::cli
