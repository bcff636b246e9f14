// Draws: a seeded stream of numbers (SplitMix64, Steele, Lea and Flood 2014).
// Threads: thread-compatible.
#pragma once

#include <cstdint>

#include "platform/random.h"

namespace quillmark::sim {

class Draws final : public Random {
 public:
  explicit Draws(std::uint64_t seed) : state_(seed) {}

  [[nodiscard]] std::uint64_t next() override {
    std::uint64_t mixed = state_ += 0x9E3779B97F4A7C15;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
    return last_ = mixed ^ (mixed >> 31);
  }
  // Needs bound > 0; smaller than it.
  [[nodiscard]] std::size_t below(std::size_t bound) { return next() % bound; }
  [[nodiscard]] bool chance(unsigned percent) { return next() % 100 < percent; }
  [[nodiscard]] std::uint64_t last() const { return last_; }

 private:
  std::uint64_t state_;
  std::uint64_t last_ = 0;
};

}  // namespace quillmark::sim
