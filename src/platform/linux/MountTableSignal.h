// MountTableSignal: sleeps until the kernel tells that this process's mount table changed (poll(2) on mountinfo).
// Threads: confined to one thread, but for wake().
#pragma once

#include <chrono>
#include <optional>

#include "base/UniqueFd.h"

namespace quillmark::os {

class MountTableSignal final {
 public:
  // Changes from now on.
  MountTableSignal();
  // False when descriptors had run out.
  [[nodiscard]] bool isValid() const { return mountinfo_.valid() && wake_.valid(); }

  // True when the table changed; false when the time passed first, or somebody woke it.
  [[nodiscard]] bool wait(std::optional<std::chrono::milliseconds> atMost = {});
  // Bursts are looked at as one: lets that much time pass, unless somebody wakes it.
  void pause(std::chrono::milliseconds span);
  // For good: nothing waits any more.
  void wake();

 private:
  const UniqueFd mountinfo_;
  const UniqueFd wake_;
};

}  // namespace quillmark::os
