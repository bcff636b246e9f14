// FollowWait: waits for a directory to change, until the person has had enough: interrupts, or reads no more.
// Ownership: owns its descriptors. From the first wait on, signals that interrupt come here and end nothing by themselves.
// Threads:   one thread.
// Errors:    none; a directory that can't be watched is looked at every second.
#pragma once

#include <string>

#include "base/UniqueFd.h"

namespace quillmark::cli {

class FollowWait final {
 public:
  explicit FollowWait(std::string directory) : directory_(std::move(directory)) {}

  // True when there may be more to read, at once the first time. False when it is enough.
  [[nodiscard]] bool wait();

 private:
  void begin();
  [[nodiscard]] bool watchAnew();
  void takeChanges();

  const std::string directory_;
  UniqueFd signals_;
  UniqueFd changes_;
  bool watches_ = false;
};

}  // namespace quillmark::cli
