// PowerSources: what the machine runs on.
// Threads: thread-safe; looks anew at every call.
#pragma once

namespace quillmark {

class PowerSources {
 public:
  virtual ~PowerSources() = default;
  // True as well where nothing is known of a power source.
  [[nodiscard]] virtual bool isOnACPower() = 0;
};

}  // namespace quillmark
