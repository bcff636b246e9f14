#include "history/ScanStats.h"

#include <fmt/format.h>

namespace quillmark {
namespace {

std::string_view plural(std::uint64_t count) { return count == 1 ? "y" : "ies"; }

std::string first(const std::optional<std::string>& path) { return path ? " (first: " + *path + ")" : std::string(); }

void keepFirst(std::optional<std::string>& kept, const std::string& path) {
  if (!kept) kept = path;
}

}  // namespace

void ScanStats::addBulkFallback() {
  counts_.with([](Counts& counts) { ++counts.bulkFallbacks; });
}

void ScanStats::addDatalessDirectory() {
  counts_.with([](Counts& counts) { ++counts.datalessDirectories; });
}

void ScanStats::addDeniedDirectory(const std::string& path) {
  counts_.with([&](Counts& counts) {
    ++counts.deniedDirectories;
    keepFirst(counts.firstDeniedDirectory, path);
  });
}

void ScanStats::addDeniedEntry(const std::string& path) {
  counts_.with([&](Counts& counts) {
    ++counts.deniedEntries;
    keepFirst(counts.firstDeniedEntry, path);
  });
}

std::optional<ScanStats::Report> ScanStats::report(const std::string& root) {
  const Counts counts = counts_.with([](const Counts& now) { return now; });
  if (counts.bulkFallbacks + counts.datalessDirectories + counts.deniedDirectories + counts.deniedEntries == 0) {
    return std::nullopt;
  }
  std::string text = fmt::format(
      "scanner: bulk enumeration fell back to readdir for {} director{}, {} dataless (evicted) treated as empty, "
      "{} unreadable director{} skipped{}",
      counts.bulkFallbacks, plural(counts.bulkFallbacks), counts.datalessDirectories, counts.deniedDirectories,
      plural(counts.deniedDirectories), first(counts.firstDeniedDirectory));
  if (counts.deniedEntries > 0) {
    text += fmt::format(", {} unreadable entr{} skipped{}", counts.deniedEntries, plural(counts.deniedEntries),
                        first(counts.firstDeniedEntry));
  }
  return Report{text + " under " + root, counts.deniedDirectories + counts.deniedEntries > 0};
}

}  // namespace quillmark
