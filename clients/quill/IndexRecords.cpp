#include "quill/IndexRecords.h"

#include <algorithm>
#include <charconv>

#include "base/Text.h"
#include "journal/ActivityLog.h"
#include "journal/HelperEvent.h"
#include "journal/JSONLinesReader.h"
#include "journal/LogFiles.h"
#include "quill/LogReading.h"

namespace quillmark::cli {
namespace {

// "Full-scan index · 532113 files"
std::int64_t filesIn(std::string_view detail) {
  constexpr std::string_view before = "· ";
  const std::size_t at = detail.rfind(before);
  if (at == std::string_view::npos) return 0;
  std::int64_t files = 0;
  const char* digits = detail.data() + at + before.size();
  std::from_chars(digits, detail.data() + detail.size(), files);
  return files;
}

void take(IndexRecords& records, const HelperEvent& event) {
  IndexRecord record{.files = event.succeeded ? filesIn(event.detail) : 0, .durationMs = event.durationMs, .error = {}};
  if (event.succeeded) {
    records.lastFiles = record.files;
  } else {
    record.error = event.errorMessage.value_or("unknown error");
  }
  records.bySnapshot[event.snapshotName.value_or("")] = std::move(record);
}

}  // namespace

IndexRecords indexRecordsOf(CommandContext& context, const std::string& volumeUUID) {
  IndexRecords records;
  Complaints complaints;  // that a log is damaged is for the command that shows it
  const JSONLinesDescription description = activityLogDescription(context.paths);
  const std::vector<LogFile> files = listLogFiles(context.posix, description);
  if (files.empty()) return records;
  const FileIdentity& newest = files.back().identity;
  const LineReader reader(context.posix, complaints, description);
  (void)reader.readSince(JSONLinesCursor{newest.deviceID, newest.inode, 0}, [&](std::string_view line) {
    if (line.find("\"indexSnapshot\"") == std::string_view::npos) return;
    const auto event = decodeJson<HelperEvent>(line);
    if (event.kind != HelperEvent::Kind::indexSnapshot) return;
    if (equalsIgnoringAsciiCase(event.volumeUUID, volumeUUID)) take(records, event);
  });
  return records;
}

}  // namespace quillmark::cli
