// Which records of the logs a person wants to see.
// Threads: pure once made.
// Errors:  wrongUse for a kind or a moment that can't be understood.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "journal/HelperEvent.h"
#include "journal/HelperNotification.h"
#include "quill/QuillCommands.h"

namespace quillmark::cli {

// A volume that isn't here any more is known by its name or UUID alone.
class VolumeOfRecords final {
 public:
  VolumeOfRecords(CommandContext& context, const std::string& text);
  [[nodiscard]] bool isMeant(std::string_view recordedUUID, std::string_view recordedName) const;

 private:
  const std::string text_;  // as it was given
  std::string uuid_;        // empty where it means no volume that is here
  std::string name_;
};

class LogFilter final {
 public:
  LogFilter(CommandContext& context, const LogRequest& request);
  [[nodiscard]] bool wants(const HelperEvent& event) const;

 private:
  std::set<HelperEvent::Kind> kinds_;  // empty: all
  std::optional<VolumeOfRecords> volume_;
  std::optional<Date> since_;
  const bool failedOnly_;
};

class NoticeFilter final {
 public:
  NoticeFilter(CommandContext& context, const NoticesRequest& request);
  [[nodiscard]] bool wants(const HelperNotification& notice) const;

 private:
  std::optional<VolumeOfRecords> volume_;
  std::optional<Date> since_;
  const bool criticalOnly_;
};

}  // namespace quillmark::cli
