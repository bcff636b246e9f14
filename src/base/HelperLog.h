// HelperLog: the service's diagnostic log as every room sees it. The operational log, not the user's audit trail.
// Threads: thread-safe.
// Errors:  none; a line that can't be written is lost.
#pragma once

#include <string>
#include <string_view>

namespace quillmark {

// Where a line was written from; the defaults make it the caller's place.
struct CodeLocation {
  const char* file;
  unsigned line;
  static constexpr CodeLocation current(const char* file = __builtin_FILE(), unsigned line = __builtin_LINE()) {
    return {file, line};
  }
};

enum class LogLevel { info, warning, error };

class HelperLog {
 public:
  virtual ~HelperLog() = default;

  void info(std::string_view message, CodeLocation where = CodeLocation::current());
  void warn(std::string_view message, CodeLocation where = CodeLocation::current());
  void error(std::string_view message, CodeLocation where = CodeLocation::current());

 protected:
  virtual void emit(LogLevel level, std::string_view message, CodeLocation where) = 0;
};

}  // namespace quillmark
