// Sizes and times as they stand in sentences for people, in English.
// Threads: pure.
#pragma once

#include <cstdint>
#include <string>

#include "platform/clock.h"

namespace quillmark {

// As file managers show a file's size, in powers of 1000: "Zero KB", "999 bytes", "2 KB", "1.5 MB", "29.55 GB".
[[nodiscard]] std::string fileSizeText(std::int64_t bytes);
// "Mar 1, 2026, 9:05 AM"
[[nodiscard]] std::string shortDateAndTime(const LocalTime& time);
// "1 snapshot", "2 snapshots"
[[nodiscard]] std::string counted(std::size_t count, const std::string& noun);

}  // namespace quillmark
