// SimPlatformLog: keeps what it is told.
#pragma once

#include <string>
#include <vector>

#include "platform/PlatformLog.h"

namespace quillmark::sim {

class SimPlatformLog final : public PlatformLog {
 public:
  struct Entry {
    PlatformLogType type;
    std::string subsystem;
    std::string category;
    std::string message;
    bool operator==(const Entry&) const = default;
  };

  void log(PlatformLogType type, std::string_view subsystem, std::string_view category,
           std::string_view message) override {
    entries_.push_back({type, std::string(subsystem), std::string(category), std::string(message)});
  }
  [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }

 private:
  std::vector<Entry> entries_;
};

}  // namespace quillmark::sim
