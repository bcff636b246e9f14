// Random: bits nobody can foresee, and the identifiers made of them.
// Threads: thread-safe.
#pragma once

#include <cstdint>

#include "base/Uuid.h"

namespace quillmark {

class Random {
 public:
  virtual ~Random() = default;
  [[nodiscard]] virtual std::uint64_t next() = 0;
  // A version 4 UUID (RFC 9562).
  [[nodiscard]] Uuid uuid();
};

}  // namespace quillmark
