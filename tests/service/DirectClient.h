// DirectClient: a client of a service without a wire between them, over any backend's threads. It asks one thing at a
// time and passes pushes over.
//
//   DirectClient client(dispatch, environment);
//   const RpcIncoming reply = client.call(DeleteSnapshot{name, uuid, false});
#pragma once

#include <deque>
#include <memory>

#include "platform/Transport.h"
#include "platform/sync.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "wire/Commands.h"
#include "wire/Rpc.h"

namespace quillmark {

class DirectClient final {
 public:
  DirectClient(Threads& threads, HelperEnvironment& environment, HelperEvent::Client client = HelperEvent::Client::cli)
      : connection_(std::make_shared<Connection>(threads)),
        service_(std::make_shared<HelperService>(environment, connection_, ClientIdentity{client, "root", 0})) {}

  template <class Command>
  RpcIncoming call(const Command& command) {
    service_->receive(encodeRequest(++lastId_, Command::traits.selector, argumentValues(command)));
    return decodeIncoming(connection_->take());
  }

 private:
  class Connection final : public TransportConnection {
   public:
    explicit Connection(Threads& threads) : replies_(threads), arrived_(threads) {}
    const PeerCredentials& peer() const override { return peer_; }
    void setCodeSigningRequirement(std::string_view) override {}
    void start(Callbacks) override {}
    void send(std::string line) override {
      if (decodeIncoming(line).kind == RpcIncoming::Kind::push) return;
      replies_.with([&](auto& replies) { replies.push_back(std::move(line)); });
      arrived_.signal();
    }
    bool hasUnsent() override { return false; }
    void pauseReading() override {}
    void resumeReading() override {}
    void close() override {}

    [[nodiscard]] std::string take() {
      arrived_.wait();
      return replies_.with([](auto& replies) {
        std::string line = std::move(replies.front());
        replies.pop_front();
        return line;
      });
    }

   private:
    const PeerCredentials peer_;
    Guarded<std::deque<std::string>> replies_;
    Semaphore arrived_;
  };

  const std::shared_ptr<Connection> connection_;
  const std::shared_ptr<HelperService> service_;
  std::uint64_t lastId_ = 0;
};

}  // namespace quillmark
