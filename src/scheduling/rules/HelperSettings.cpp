#include "scheduling/rules/HelperSettings.h"

#include <algorithm>
#include <set>
#include <unordered_set>

#include "base/Text.h"
#include "wire/RecordCoding.h"

namespace quillmark {
namespace {

constexpr std::int64_t leastSafetyHours = 1;
constexpr std::int64_t mostSafetyHours = 720;

struct DefaultsOfVersion {
  std::int64_t version;
  std::vector<std::string> rules;
};

// What releases after the first one added to the default rules, by ascending version.
std::vector<DefaultsOfVersion> addedDefaults() {
  return {{1,
           {"/cores", "/macOS Install Data", "/.PKInstallSandboxManager", "/.PKInstallSandboxManager-SystemSoftware",
            "/Library/InstallerSandboxes/.PKInstallSandboxManager", "/.AppInstallationStaging"}}};
}

std::optional<std::string> normalizedRule(const std::string& text) {
  std::string rule = trimWhitespaceAndNewlines(text);
  if (rule.empty()) return std::nullopt;
  if (rule.front() != '/') rule.insert(0, 1, '/');
  while (rule.size() > 1 && rule.back() == '/') rule.pop_back();
  if (rule == "/") return std::nullopt;
  return rule;
}

std::optional<std::string> normalizedName(const std::string& text) {
  std::string name = trimWhitespaceAndNewlines(text);
  if (name.empty() || name.find('/') != std::string::npos) return std::nullopt;
  return name;
}

// Duplicates keep their first place.
std::vector<std::string> normalizedList(const std::vector<std::string>& texts,
                                        std::optional<std::string> (*normalize)(const std::string&)) {
  std::vector<std::string> result;
  std::unordered_set<std::string> seen;
  for (const std::string& text : texts) {
    auto normalized = normalize(text);
    if (normalized && seen.insert(*normalized).second) result.push_back(std::move(*normalized));
  }
  return result;
}

}  // namespace

std::string_view label(IndexingMode mode) { return mode == IndexingMode::fullScan ? "Full scan" : "Off"; }

std::string_view description(IndexingMode mode) {
  if (mode == IndexingMode::fullScan) {
    return "Build each snapshot's index with a multi-threaded full scan so comparisons are instant.";
  }
  return "Don't build snapshot indexes in the background. Comparing two snapshots builds their index on demand.";
}

std::vector<std::string> defaultExcludedPathRules() {
  return {
      "/Applications",
      "/Library",
      "/MobileSoftwareUpdate",
      "/System",
      "/Volumes",
      "/private/var",
      "/private/tmp",
      "/opt",
      "/cores",
      "/macOS Install Data",
      "/.PKInstallSandboxManager",
      "/.PKInstallSandboxManager-SystemSoftware",
      "/Library/InstallerSandboxes/.PKInstallSandboxManager",
      "/.AppInstallationStaging",
      "/Users/*/Library/Caches",
      "/Users/*/Library/HTTPStorages",
      "/Users/*/Library/Logs",
      "/Users/*/Library/Metadata",
      "/Users/*/Library/Saved Application State",
      "/Users/*/Library/Updates",
      "/Users/*/Library/Application Support/CrashReporter",
      "/Users/*/Library/Containers/*/Data/Library/Caches",
      "/Users/*/Library/Containers/*/Data/Library/HTTPStorages",
      "/Users/*/Library/Containers/*/Data/Library/Logs",
      "/Users/*/Library/Containers/*/Data/Library/Saved Application State",
      "/Users/*/Library/Containers/*/Data/tmp",
      "/Users/*/Library/Group Containers/*/Library/Caches",
      "/Users/*/Library/Group Containers/*/Library/HTTPStorages",
      "/Users/*/Library/Group Containers/*/Library/Logs",
      "/Users/*/Library/Group Containers/*/Library/Saved Application State",
      "/Users/*/Library/Daemon Containers/*/Data/Library/Caches",
      "/Users/*/Library/Daemon Containers/*/Data/Library/HTTPStorages",
      "/Users/*/Library/Daemon Containers/*/Data/Library/Logs",
      "/Users/*/Library/Daemon Containers/*/Data/Library/Saved Application State",
      "/Users/*/Library/Daemon Containers/*/Data/tmp",
      "/Users/*/Library/Biome",
      "/Users/*/Library/DuetExpertCenter",
      "/Users/*/Library/IntelligencePlatform",
      "/Users/*/Library/LanguageModeling",
      "/Users/*/Library/MediaAnalysis",
      "/Users/*/Library/PersonalizationPortrait",
      "/Users/*/Library/Suggestions",
      "/Users/*/Library/Trial",
      "/Users/*/Library/com.apple.aiml.instrumentation",
      "/Users/*/Library/Developer/CoreSimulator",
      "/Users/*/Library/Developer/Xcode/DerivedData",
      "/Users/*/Library/Developer/Xcode/DocumentationCache",
      "/Users/*/Library/Developer/Xcode/DocumentationIndex",
      "/Users/*/Library/Developer/Xcode/Products",
      "/Users/*/Library/Developer/Xcode/iOS DeviceSupport",
      "/Users/*/Library/pnpm",
      "/Users/*/.cache",
      "/Users/*/.cargo",
      "/Users/*/.cocoapods",
      "/Users/*/.gradle",
      "/Users/*/.m2",
      "/Users/*/.npm",
      "/Users/*/.nvm",
      "/Users/*/.pyenv",
      "/Users/*/.rubies",
      "/Users/*/.rustup",
  };
}

std::vector<std::string> defaultExcludedDirectoryNames() {
  return {
      ".Trash",          ".Trashes",       ".Spotlight-V100", ".fseventsd",   ".DocumentRevisions-V100",
      ".TemporaryItems", ".MobileBackups", ".dropbox.cache",  "node_modules",
  };
}

HelperSettings HelperSettings::normalized() const {
  HelperSettings settings = *this;
  settings.excludedPathRules = normalizedList(excludedPathRules, normalizedRule);
  settings.excludedDirectoryNames = normalizedList(excludedDirectoryNames, normalizedName);
  settings.safetySnapshotRetentionHours = std::clamp(safetySnapshotRetentionHours, leastSafetyHours, mostSafetyHours);
  return settings;
}

std::pair<HelperSettings, std::vector<std::string>> HelperSettings::mergingNewDefaults() const {
  const std::int64_t stored = exclusionDefaultsVersion.value_or(0);
  HelperSettings settings = *this;
  settings.exclusionDefaultsVersion = currentExclusionDefaultsVersion;
  if (stored > 0) return {std::move(settings), std::vector<std::string>()};
  std::set<std::string> present(excludedPathRules.begin(), excludedPathRules.end());
  std::vector<std::string> added;
  for (const auto& [version, rules] : addedDefaults()) {
    if (version <= stored || version > currentExclusionDefaultsVersion) continue;
    std::copy_if(rules.begin(), rules.end(), std::back_inserter(added),
                 [&](const std::string& rule) { return present.insert(rule).second; });
  }
  settings.excludedPathRules.insert(settings.excludedPathRules.end(), added.begin(), added.end());
  return {settings.normalized(), std::move(added)};
}

template <>
struct CaseNames<IndexingMode> {
  static constexpr std::array names{std::pair{IndexingMode::fullScan, "fullScan"},
                                    std::pair{IndexingMode::disabled, "disabled"}};
};

template <>
struct Description<HelperSettings> {
  static void fields(auto& field, auto& settings) {
    // A file that says nothing of the version comes from before there was one.
    if constexpr (!std::is_const_v<std::remove_reference_t<decltype(settings)>>) settings.exclusionDefaultsVersion = 0;
    field.lenient("indexingMode", settings.indexingMode);
    field.lenient("indexOnBattery", settings.indexOnBattery);
    field.lenient("excludedPathRules", settings.excludedPathRules);
    field.lenient("excludedDirectoryNames", settings.excludedDirectoryNames);
    field.lenient("safetySnapshotRetentionHours", settings.safetySnapshotRetentionHours);
    field.lenient("monitoringEnabled", settings.monitoringEnabled);
    field.lenient("monitoredPaths", settings.monitoredPaths);
    field.lenient("monitoringSensitivity", settings.monitoringSensitivity);
    field.lenient("monitoringAutoSnapshot", settings.monitoringAutoSnapshot);
    field("monitoringProtectsSnapshots", settings.monitoringProtectsSnapshots);
    field("finderBadgesEnabled", settings.finderBadgesEnabled);
    field.lenient("automaticDeletionEnabled", settings.automaticDeletionEnabled);
    field("measureSnapshotSizes", settings.measureSnapshotSizes);
    field("exclusionDefaultsVersion", settings.exclusionDefaultsVersion);
  }
};

}  // namespace quillmark

QUILLMARK_RECORD(quillmark::HelperSettings)
