#include "service/HelperListener.h"

#include <fmt/format.h>

#include <vector>

#include "base/HelperLog.h"
#include "platform/Transport.h"
#include "platform/Users.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"

namespace quillmark {
namespace {

// Keeps lines until it is known whether they are worth telling.
class HeldLog final : public HelperLog {
 public:
  void releaseTo(HelperLog& log) {
    for (const Line& line : lines_) {
      switch (line.level) {
        case LogLevel::info: log.info(line.message, line.where); break;
        case LogLevel::warning: log.warn(line.message, line.where); break;
        case LogLevel::error: log.error(line.message, line.where); break;
      }
    }
  }

 protected:
  void emit(LogLevel level, std::string_view message, CodeLocation where) override {
    lines_.push_back({level, std::string(message), where});
  }

 private:
  struct Line {
    LogLevel level;
    std::string message;
    CodeLocation where;
  };
  std::vector<Line> lines_;
};

// What became of a connection. Broken off is not the same as ended: the peer didn't ask for it.
void tellEnd(HelperLog& log, int pid, CloseReason reason) {
  if (reason == CloseReason::notThePeer) {
    log.error(
        fmt::format("Ending the connection from pid={}: it was used by another program than the one let in", pid));
  } else if (reason != CloseReason::peerClosed && reason != CloseReason::closedByUs) {
    log.info(fmt::format("XPC connection from pid={} interrupted", pid));
  }
  log.info(fmt::format("XPC connection from pid={} invalidated", pid));
}

}  // namespace

HelperListener::HelperListener(HelperEnvironment& environment)
    : environment_(environment), acceptance_(environment.platform.peers, environment.platform.dispatch),
      refusals_(environment.platform.dispatch) {}

void HelperListener::resume() {
  if (const auto& note = environment_.platform.bundle.anchorNote) environment_.log.warn(*note);
  environment_.platform.listener.resume(
      [this](const std::shared_ptr<TransportConnection>& connection) { return shouldAccept(connection); });
}

bool HelperListener::shouldAccept(const std::shared_ptr<TransportConnection>& connection) {
  const std::uint32_t user = connection->peer().uid;
  HeldLog held;
  const bool isTold = refusals_.tells(user, environment_.log);
  const auto decision = decide(*connection, isTold ? environment_.log : held);
  if (!decision) {
    refusals_.refused(user, environment_.log);
    return false;
  }
  held.releaseTo(environment_.log);
  serve(connection, *decision);
  return true;
}

std::optional<PeerDecision> HelperListener::decide(TransportConnection& connection, HelperLog& log) {
  if (environment_.shutdown.isDraining()) {
    log.info("Rejecting new XPC connection while helper shutdown is draining");
    return std::nullopt;
  }
  return acceptance_.decide(connection, log);
}

void HelperListener::serve(const std::shared_ptr<TransportConnection>& connection, const PeerDecision& decision) {
  HelperLog& log = environment_.log;
  const int pid = decision.pid;
  const std::optional<std::string> user = environment_.platform.users.userName(decision.peerUID);
  log.info(fmt::format("Peer pid={} classified as client={} user={}", pid, word(decision.client),
                       user.value_or("<unknown>")));
  // The service goes with its connection: the callbacks own it, and let go of it at the end.
  auto service = std::make_shared<std::shared_ptr<HelperService>>(std::make_shared<HelperService>(
      environment_, connection, ClientIdentity{decision.client, user, decision.peerUID, connection->peer().groups}));
  environment_.connections.add(connection);
  log.info(fmt::format("Accepted XPC connection from pid={} (subject to codesign check)", pid));
  connection->start({.received = [service](const std::string& line) { (*service)->receive(line); },
                     .closed =
                         [service, pid, &log](CloseReason reason) {
                           service->reset();
                           tellEnd(log, pid, reason);
                         }});
}

}  // namespace quillmark
