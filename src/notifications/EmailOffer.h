// EmailOffer: takes in what may be mailed, and decides whether it is.
// Threads: thread-safe; doesn't wait for a server. Errors: none.
#pragma once

namespace quillmark {

struct HelperNotification;

class EmailOffer {
 public:
  virtual ~EmailOffer() = default;
  virtual void offer(const HelperNotification& notification) = 0;
};

}  // namespace quillmark
