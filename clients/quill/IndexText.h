// What people read of a snapshot that is being indexed.
// Units:   widths in the columns of a terminal.
// Threads: pure.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace quillmark::cli {

struct IndexRun {
  std::string name;  // of the snapshot, raw
  std::int64_t files = 0;
  std::chrono::nanoseconds elapsed{0};
  std::optional<std::int64_t> expected;  // as many as the volume held the last time
  std::chrono::nanoseconds stillFor{0};  // since the count was last another one
};

// "before  ━━━━━━━━────────  53%  532,113 files  412,000/s  1 s left", made harmless and no wider than that: the bar goes
// first. Without an expectation there is no bar, and the time that passed stands for the time that is left. A count that
// stands still, because the index is being written, has neither rate nor end: "still working  7 s".
[[nodiscard]] std::string barOf(const IndexRun& run, std::size_t width);

// "532,113"
[[nodiscard]] std::string grouped(std::int64_t number);
// "80 ms", "1.8 s", "42 s", "3 min 5 s", "2 h 10 min"
[[nodiscard]] std::string shownSpan(std::chrono::nanoseconds span);

}  // namespace quillmark::cli
