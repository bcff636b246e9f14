// Texts of bounded length for logs and records: a client's argument may be megabytes long.
// Threads: pure.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quillmark {

inline constexpr std::size_t maxShortTextBytes = 4096;

// The text itself, or its beginning up to the bound, ending between scalars, with "..." behind it.
[[nodiscard]] std::string shortText(std::string_view text);

}  // namespace quillmark
