// CountedMemory: what a program takes from the heap while one of these lives, as the allocator rounds it. Who links it gets
// counting operators new and delete.
// Threads: one lives at a time; what is allocated meanwhile may be by any.
#pragma once

#include <cstddef>

namespace quillmark::bench {

class CountedMemory final {
 public:
  CountedMemory();
  ~CountedMemory();
  CountedMemory(const CountedMemory&) = delete;
  CountedMemory& operator=(const CountedMemory&) = delete;

  // Since its beginning, less what was given back.
  [[nodiscard]] std::size_t now() const;
  [[nodiscard]] std::size_t most() const;
};

}  // namespace quillmark::bench
