#include "quill/LogReading.h"

#include <fmt/format.h>

#include "platform/Files.h"
#include "quill/Failures.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

// Longer than any cursor.
constexpr std::size_t cursorFileLimit = 4096;
constexpr std::uint32_t cursorFileMode = 0644;
constexpr std::size_t mostTold = 5;

}  // namespace

void Complaints::log(PlatformLogType, std::string_view, std::string_view, std::string_view message) {
  if (told_.size() < mostTold) told_.emplace_back(message);
}

void Complaints::tell(Output& output, std::int64_t corruptLines) {
  for (const std::string& message : told_) output.note(message);
  const auto told = static_cast<std::int64_t>(told_.size());
  if (corruptLines > told) output.note(fmt::format("and {} more lines that can't be read", corruptLines - told));
  forget();
}

std::optional<JSONLinesCursor> CursorFile::load() const {
  if (!path_) return std::nullopt;
  const auto text = readFile(context_.posix, *path_, cursorFileLimit);
  if (!text || text->empty()) return std::nullopt;
  try {
    return decodeJson<JSONLinesCursor>(*text);
  } catch (const Error&) {
    throw wrongUse(fmt::format("\"{}\" holds something else than how far the log was read.", *path_),
                   "It was left as it is. Name another file, or remove it to begin anew.");
  }
}

void CursorFile::save(const std::optional<JSONLinesCursor>& cursor) {
  if (!path_ || !cursor || cursor == saved_) return;
  writeAtomically(context_.posix, context_.random, *path_, encodeJson(*cursor) + "\n", cursorFileMode);
  saved_ = cursor;
}

}  // namespace quillmark::cli
