// MemoryReturn: gives memory that large jobs let go of back to the machine; the allocator would keep it.
// Ownership: borrows the process, which must outlive it.
// Threads:   thread-safe; it is given back on a queue of the pool's, with no lock held.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

#include "platform/dispatch.h"

namespace quillmark {

class ThisProcess;

class MemoryReturn final {
 public:
  // Entries of trees and lists. What is smaller isn't worth the pages that the next job would have to be given again.
  static constexpr std::uint64_t worthwhile = 50'000;
  // After the last of them: replies have left by then, and whoever held the entries is gone.
  static constexpr std::chrono::seconds settle{5};

  MemoryReturn(Dispatch& dispatch, ThisProcess& process);

  // So many entries in memory are let go of about now. Small jobs add up.
  void released(std::uint64_t entries);

  // Says so at its end, whichever way that comes.
  class Held final {
   public:
    // Null: nobody is told.
    explicit Held(MemoryReturn* memory, std::uint64_t entries = 0) : memory_(memory), entries_(entries) {}
    ~Held() {
      if (memory_) memory_->released(entries_);
    }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    void holds(std::uint64_t entries) { entries_ = entries; }

   private:
    MemoryReturn* const memory_;
    std::atomic<std::uint64_t> entries_;
  };

 private:
  const std::shared_ptr<std::atomic<std::uint64_t>> sinceLast_;
  const std::unique_ptr<Timer> timer_;
};

}  // namespace quillmark
