#include "scheduling/rules/HelperSettings.h"

#include "wire/RecordCoding.h"

namespace quillmark {

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
