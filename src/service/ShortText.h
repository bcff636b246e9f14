// Texts of bounded length for logs and records: a client's argument may be megabytes long.
// Threads: pure.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace quillmark {

// The text itself, or its beginning up to so many bytes, ending between scalars, with "..." behind it.
[[nodiscard]] std::string shortText(std::string_view text, std::size_t most);

}  // namespace quillmark
