// HelperListener: decides on every incoming connection, and gives the ones let in a service of their own.
// Threads: the decision runs on a queue of the transport; decisions on several connections may overlap.
#pragma once

#include <memory>

#include "service/PeerAcceptance.h"
#include "service/RefusalBudget.h"

namespace quillmark {

class HelperEnvironment;
class TransportConnection;

class HelperListener final {
 public:
  explicit HelperListener(HelperEnvironment& environment);
  // Throws Error when the place can't be listened on.
  void resume();

 private:
  [[nodiscard]] bool shouldAccept(const std::shared_ptr<TransportConnection>& connection);
  [[nodiscard]] std::optional<PeerDecision> decide(TransportConnection& connection, HelperLog& log);
  void serve(const std::shared_ptr<TransportConnection>& connection, const PeerDecision& decision);

  HelperEnvironment& environment_;
  PeerAcceptance acceptance_;
  RefusalBudget refusals_;
};

}  // namespace quillmark
