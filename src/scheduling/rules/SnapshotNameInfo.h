// SnapshotNameInfo: the grammar of snapshot names, the only place that builds and reads them.
// A name is prefix, kind part, ".", timestamp (always UTC), and optionally "." and a label:
//   com.harrowfern.Quillmark.auto.hourly.2025-03-01T12-00-00Z
//   com.harrowfern.Quillmark.manual.2025-03-01T12-00-00Z.before-upgrade
// Threads: pure. Errors: none.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "base/Date.h"
#include "scheduling/rules/SnapshotCadence.h"

namespace quillmark::SnapshotNameInfo {

inline constexpr std::string_view prefix = "com.harrowfern.Quillmark.";
inline constexpr std::string_view systemPrefix = "com.apple.os";
inline constexpr std::string_view manualWord = "manual";
inline constexpr std::string_view safetyWord = "safety";
inline constexpr std::string_view autoWord = "auto";
inline constexpr std::size_t longestName = 240;  // characters as people count them

struct Kind {
  enum class Case { automatic, manual, safety, unknown } value = Case::unknown;
  std::optional<SnapshotCadence> cadence;  // of an automatic one
  bool operator==(const Kind&) const = default;

  static Kind automatic(SnapshotCadence cadence) { return {Case::automatic, cadence}; }
  static constexpr Kind manual() { return {Case::manual, std::nullopt}; }
  static constexpr Kind safety() { return {Case::safety, std::nullopt}; }
  static constexpr Kind unknown() { return {Case::unknown, std::nullopt}; }
};

struct Parsed {
  Kind kind;
  std::optional<Date> utcTimestamp;  // absent when missing or unreadable
  std::optional<std::string> label;  // all behind the timestamp; absent when nothing follows it
  bool operator==(const Parsed&) const = default;
};

[[nodiscard]] Parsed parse(std::string_view name);
[[nodiscard]] Kind kind(std::string_view name);
[[nodiscard]] std::string sanitizeLabel(std::string_view label);
[[nodiscard]] std::string format(std::string_view label, Kind kind, Date date);
// One of the system's own.
[[nodiscard]] bool isOwned(std::string_view name);
// One of the operating system's, which nothing here ever touches.
[[nodiscard]] bool isSystemManaged(std::string_view name);

}  // namespace quillmark::SnapshotNameInfo
