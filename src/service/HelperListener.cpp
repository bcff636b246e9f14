#include "service/HelperListener.h"

#include <fmt/format.h>

#include "base/HelperLog.h"
#include "platform/Transport.h"
#include "platform/Users.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/PeerAcceptance.h"

namespace quillmark {

void HelperListener::resume() {
  environment_.platform.listener.resume(
      [this](const std::shared_ptr<TransportConnection>& connection) { return shouldAccept(connection); });
}

bool HelperListener::shouldAccept(const std::shared_ptr<TransportConnection>& connection) {
  HelperLog& log = environment_.log;
  if (environment_.shutdown.isDraining()) {
    log.info("Rejecting new XPC connection while helper shutdown is draining");
    return false;
  }
  const int pid = connection->peer().pid;
  const PeerDecision decision = decidePeer(connection->peer());
  if (decision.refusal) {
    log.error(*decision.refusal);
    return false;
  }
  const std::optional<std::string> user =
      decision.peerUID ? environment_.platform.users.userName(*decision.peerUID) : std::nullopt;
  log.info(fmt::format("Peer pid={} classified as client={} user={}", pid, word(decision.client),
                       user.value_or("<unknown>")));
  // The service goes with its connection: the callbacks own it, and let go of it at the end.
  auto service = std::make_shared<std::shared_ptr<HelperService>>(std::make_shared<HelperService>(
      environment_, connection, ClientIdentity{decision.client, user, decision.peerUID}));
  environment_.connections.add(connection);
  log.info(fmt::format("Accepted XPC connection from pid={} (subject to codesign check)", pid));
  connection->start({.received = [service](const std::string& line) { (*service)->receive(line); },
                     .closed =
                         [service, pid, &log](CloseReason) {
                           service->reset();
                           log.info(fmt::format("XPC connection from pid={} invalidated", pid));
                         }});
  return true;
}

}  // namespace quillmark
