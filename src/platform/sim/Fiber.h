// Fiber: a stack of its own and the switch onto it and back.
// Ownership: owns the stack, with a guard page below. Objects that live on it are destroyed only by running it out.
// Threads:   confined to the thread that made it.
// Invariant: a switch keeps apart what the language keeps per thread: the exceptions being handled, and errno.
#pragma once

#include <cstddef>

#include "base/UniqueFunction.h"

namespace quillmark::sim {

class Fiber final {
 public:
  // The body must never return: it leaves for good.
  Fiber(std::size_t stackSize, UniqueFunction<void()> body);
  ~Fiber();
  Fiber(const Fiber&) = delete;
  Fiber& operator=(const Fiber&) = delete;

  // From the thread's own stack: goes on with the fiber until it leaves.
  void enter();
  // From the fiber.
  void leave();
  // Keeps the stack, and all that only it refers to, as it is for ever when leaks are looked for.
  void abandon();

 private:
  // Of the Itanium C++ ABI, section 2.2.2.
  struct ExceptionGlobals {
    void* caught = nullptr;
    unsigned uncaught = 0;
  };
  struct Switches;

  std::byte* memory_ = nullptr;  // guard page first
  std::size_t size_ = 0;
  void* context_ = nullptr;
  void* home_ = nullptr;
  ExceptionGlobals exceptions_;
  int error_ = 0;
  UniqueFunction<void()> body_;

  // What the address sanitizer has to be told at a switch.
  void* fakeStack_ = nullptr;
  const void* homeStack_ = nullptr;
  std::size_t homeStackSize_ = 0;
};

// The object, and all that only it refers to, is no leak.
void loseOnPurpose(const void* object);

}  // namespace quillmark::sim
