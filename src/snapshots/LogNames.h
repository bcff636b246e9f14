// The names under which this system writes to the platform's log.
#pragma once

#include <string_view>

namespace quillmark::LogNames {

inline constexpr std::string_view subsystem = "com.harrowfern.quillmark.helper";
inline constexpr std::string_view apfs = "apfs";

}  // namespace quillmark::LogNames
