// Sizes as people write them.
// Threads: pure.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace quillmark::cli {

// "30GB" and "30 gb" in powers of 1000, "28GiB" in powers of 1024, "1.5TB", "30000000000" and "5000B" in bytes.
// Throws wrongUse for anything else, and for what no file system could hold.
[[nodiscard]] std::int64_t sizeMeant(std::string_view text);

}  // namespace quillmark::cli
