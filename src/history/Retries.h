// Calls of a walk that a signal may interrupt: tried again a few times, a little later each time.
#pragma once

#include <cerrno>
#include <chrono>

#include "platform/sync.h"

namespace quillmark {

// Six attempts in all; the last one's outcome stands.
template <class Call>
auto retried(Threads& threads, Call call) {
  for (int milliseconds = 5;; milliseconds += 5) {
    auto result = call();
    if (result || result.error() != EINTR || milliseconds > 25) return result;
    sleepFor(threads, std::chrono::milliseconds(milliseconds));
  }
}

}  // namespace quillmark
