// Which records of the activity log a person wants to see.
// Threads: pure once made.
#pragma once

#include <optional>
#include <set>
#include <string>

#include "journal/HelperEvent.h"
#include "quill/QuillCommands.h"

namespace quillmark::cli {

class LogFilter final {
 public:
  // Throws wrongUse for a kind or a moment that can't be understood.
  LogFilter(CommandContext& context, const LogRequest& request);

  [[nodiscard]] bool wants(const HelperEvent& event) const;

 private:
  // A volume that isn't here any more is known by its name or UUID alone.
  struct Volume {
    std::string text;  // as it was given
    std::string uuid;  // empty where it means no volume that is here
    std::string name;
  };

  [[nodiscard]] bool isOn(const HelperEvent& event) const;

  std::set<HelperEvent::Kind> kinds_;  // empty: all
  std::optional<Volume> volume_;
  std::optional<Date> since_;
  const bool failedOnly_;
};

}  // namespace quillmark::cli
