// HelperListener: decides on every incoming connection, and gives the ones let in a service of their own.
// Threads: the decision runs on a queue of the transport.
#pragma once

#include <memory>

namespace quillmark {

class HelperEnvironment;
class TransportConnection;

class HelperListener final {
 public:
  explicit HelperListener(HelperEnvironment& environment) : environment_(environment) {}
  // Throws Error when the place can't be listened on.
  void resume();

 private:
  [[nodiscard]] bool shouldAccept(const std::shared_ptr<TransportConnection>& connection);

  HelperEnvironment& environment_;
};

}  // namespace quillmark
