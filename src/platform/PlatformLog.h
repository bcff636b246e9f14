// PlatformLog: the machine's own log.
// Threads: thread-safe. Errors: none.
#pragma once

#include <string_view>

namespace quillmark {

// The platform's words: "normal" is its default type, above info.
enum class PlatformLogType { info, normal, error, fault };

class PlatformLog {
 public:
  virtual ~PlatformLog() = default;
  virtual void log(PlatformLogType type, std::string_view subsystem, std::string_view category,
                   std::string_view message) = 0;
};

}  // namespace quillmark
