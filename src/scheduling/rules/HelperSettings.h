// HelperSettings: the machine-wide settings. A plain value; JSON: wire/Json.h, every key optional when decoding.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quillmark {

enum class IndexingMode { fullScan, disabled };

// What people read of a mode.
[[nodiscard]] std::string_view label(IndexingMode mode);
[[nodiscard]] std::string_view description(IndexingMode mode);

[[nodiscard]] std::vector<std::string> defaultExcludedPathRules();
[[nodiscard]] std::vector<std::string> defaultExcludedDirectoryNames();

struct HelperSettings {
  static constexpr std::int64_t currentExclusionDefaultsVersion = 1;

  IndexingMode indexingMode = IndexingMode::fullScan;
  bool indexOnBattery = true;
  // Paths from a volume's root; a component "*" matches any one component.
  std::vector<std::string> excludedPathRules = defaultExcludedPathRules();
  // Directory names excluded wherever they occur.
  std::vector<std::string> excludedDirectoryNames = defaultExcludedDirectoryNames();
  std::int64_t safetySnapshotRetentionHours = 24;  // 1 to 720
  bool monitoringEnabled = true;
  std::vector<std::string> monitoredPaths;
  std::string monitoringSensitivity = "normal";
  bool monitoringAutoSnapshot = true;
  std::optional<bool> monitoringProtectsSnapshots = false;
  std::optional<bool> finderBadgesEnabled = false;
  std::optional<bool> measureSnapshotSizes = true;
  bool automaticDeletionEnabled = true;
  std::optional<std::int64_t> exclusionDefaultsVersion = currentExclusionDefaultsVersion;  // defaults merged so far
  bool operator==(const HelperSettings&) const = default;

  // Bad values mended, not refused: rules and names trimmed, well formed and each there once, hours in their range.
  [[nodiscard]] HelperSettings normalized() const;
  // With the default rules that came after the settings were written, and what was added. A rule that the user took out
  // stays out, once its version has been merged.
  [[nodiscard]] std::pair<HelperSettings, std::vector<std::string>> mergingNewDefaults() const;
};

}  // namespace quillmark
