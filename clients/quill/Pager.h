// Long output, page by page: through the program that the person names in PAGER, else less(1).
// Threads: one thread at a time.
#pragma once

#include <memory>
#include <optional>
#include <string>

namespace quillmark::cli {

// The person's wishes, as the environment told them.
struct PagerWish {
  std::optional<std::string> program;  // PAGER; an empty one and "cat" mean none
  std::optional<std::string> options;  // LESS
};

// From here on standard output goes through the pager, until the result is gone, which waits for the person to leave it.
// Null, and nothing changes, where none is wished or there is none. The pager is a program of the person's own choice: it
// isn't started while the process holds another group than the person's.
[[nodiscard]] std::shared_ptr<void> startPager(const PagerWish& wish);

}  // namespace quillmark::cli
