#include "base/HelperLog.h"

namespace quillmark {

void HelperLog::info(std::string_view message, CodeLocation where) { emit(LogLevel::info, message, where); }
void HelperLog::warn(std::string_view message, CodeLocation where) { emit(LogLevel::warning, message, where); }
void HelperLog::error(std::string_view message, CodeLocation where) { emit(LogLevel::error, message, where); }

}  // namespace quillmark
