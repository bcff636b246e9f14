// The shape of a log of JSON lines: where it lies, when it rotates, and the place that a reader has got to.
// Threads: plain values.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmark {

struct HostPaths;

struct JSONLinesDescription {
  std::string directoryPath;
  std::string currentFileName;
  std::string archivePrefix;
  std::string archiveSuffix;
  std::uint64_t rotationBytes = 0;
  std::int64_t retainedArchiveCount = 0;
  std::string logCategory;
  std::string name;  // of the writer's queue

  [[nodiscard]] std::string currentPath() const { return directoryPath + "/" + currentFileName; }
  [[nodiscard]] std::string writerQueueLabel() const { return "com.harrowfern.quillmark." + name + ".writer"; }
  [[nodiscard]] bool isArchive(std::string_view fileName) const;
};

[[nodiscard]] JSONLinesDescription activityLogDescription(const HostPaths& paths);
[[nodiscard]] JSONLinesDescription notificationLogDescription(const HostPaths& paths);

// A file whatever its name.
struct FileIdentity {
  std::uint64_t deviceID = 0;
  std::uint64_t inode = 0;
  bool operator==(const FileIdentity&) const = default;
};

// One file of a log, as it stood when it was listed.
struct LogFile {
  std::string name;
  std::string path;
  FileIdentity identity;
  std::uint64_t size = 0;
  bool isCurrent = false;
};

// Where a reader goes on: the byte behind the last line consumed, in a file known by identity, so that it survives the
// file's renaming. JSON: wire/Json.h.
struct JSONLinesCursor {
  std::uint64_t deviceID = 0;
  std::uint64_t inode = 0;
  std::uint64_t offset = 0;
  [[nodiscard]] FileIdentity file() const { return {deviceID, inode}; }
  bool operator==(const JSONLinesCursor&) const = default;
};

// How a read went.
struct JSONLinesProgress {
  std::optional<JSONLinesCursor> cursor;  // where the next read goes on
  // False when the read began again at the oldest file, though a cursor may have been given.
  bool resumedCursor = false;
  std::optional<std::string> error;
  std::int64_t skippedCorruptLines = 0;
};

template <class Record>
struct ReadBatch : JSONLinesProgress {
  std::vector<Record> records;
};

// A line longer than this is never written, and counts as corrupt when it is read.
inline constexpr std::size_t maxJSONLineBytes = std::size_t{16} << 20;

// The domain of the writer's failures; the code is the errno.
inline constexpr std::string_view jsonLinesErrorDomain = "Quillmark.JSONLinesLog";

}  // namespace quillmark
