// TreeMemory: what trees may take together, from when they begin to be read until they are gone. Anybody can make more names
// than the machine has memory for.
//
//   const auto memory = std::make_shared<TreeMemory>(mostBytes);
//   TreeClaim claim(memory);
//   if (!claim.take(bytes)) return;  // it would be too much
//
// Ownership: a claim shares the memory it takes of, and gives back at its end what it took.
// Threads:   thread-safe.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <utility>

namespace quillmark {

class TreeMemory final {
 public:
  explicit TreeMemory(std::uint64_t mostBytes) : most_(mostBytes) {}

 private:
  friend class TreeClaim;
  [[nodiscard]] bool take(std::uint64_t bytes) {
    std::uint64_t taken = taken_;
    do {
      if (bytes > most_ - taken) return false;
    } while (!taken_.compare_exchange_weak(taken, taken + bytes));
    return true;
  }
  void giveBack(std::uint64_t bytes) { taken_ -= bytes; }

  const std::uint64_t most_;
  std::atomic<std::uint64_t> taken_{0};
};

class TreeClaim final {
 public:
  explicit TreeClaim(std::shared_ptr<TreeMemory> memory) : memory_(std::move(memory)) {}
  ~TreeClaim() { memory_->giveBack(taken_); }
  TreeClaim(const TreeClaim&) = delete;
  TreeClaim& operator=(const TreeClaim&) = delete;

  // False, and nothing taken, when so much isn't left. Who is refused once has to end: others may need less.
  bool take(std::uint64_t bytes) {
    if (!memory_->take(bytes)) {
      isRefused_ = true;
      return false;
    }
    taken_ += bytes;
    return true;
  }
  // Of what was taken.
  void giveBack(std::uint64_t bytes) {
    taken_ -= bytes;
    memory_->giveBack(bytes);
  }
  [[nodiscard]] bool isRefused() const { return isRefused_; }
  [[nodiscard]] const std::shared_ptr<TreeMemory>& memory() const { return memory_; }

 private:
  const std::shared_ptr<TreeMemory> memory_;
  std::atomic<std::uint64_t> taken_{0};
  std::atomic<bool> isRefused_{false};
};

}  // namespace quillmark
