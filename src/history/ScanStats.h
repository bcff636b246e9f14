// ScanStats: what one walk could not read, and how that is told.
// Threads: thread-safe.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/sync.h"

namespace quillmark {

class ScanStats final {
 public:
  explicit ScanStats(Threads& threads) : counts_(threads) {}

  void addBulkFallback();
  void addDatalessDirectory();
  void addDeniedDirectory(const std::string& path);
  void addDeniedEntry(const std::string& path);

  struct Report {
    std::string text;
    bool isWarning = false;  // something was left out that should be there
  };
  // Absent when there is nothing to tell.
  [[nodiscard]] std::optional<Report> report(const std::string& root);

 private:
  struct Counts {
    std::uint64_t bulkFallbacks = 0;
    std::uint64_t datalessDirectories = 0;
    std::uint64_t deniedDirectories = 0;
    std::uint64_t deniedEntries = 0;
    std::optional<std::string> firstDeniedDirectory;
    std::optional<std::string> firstDeniedEntry;
  };
  Guarded<Counts> counts_;
};

}  // namespace quillmark
