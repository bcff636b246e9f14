// PeerAcceptance: whether a peer may talk to the service, as what kind of client, and for which user. All that commands
// trust about a peer is settled here, once, from the kernel's word and the signature of the peer's code.
// Ownership: borrows the platform's identities.
// Threads:   thread-safe; decisions on several peers may overlap. Waits for the peer's program to be looked into.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "journal/HelperEvent.h"
#include "platform/PeerIdentity.h"
#include "service/PeerIdentityCache.h"

namespace quillmark {

class HelperLog;
class TransportConnection;

struct PeerDecision {
  int pid = 0;  // of the token, where there is one
  HelperEvent::Client client = HelperEvent::Client::unknown;
  std::uint32_t peerUID = 0;
};

class PeerAcceptance final {
 public:
  PeerAcceptance(PeerIdentities& peers, Threads& threads) : peers_(peers), cache_(threads) {}

  // Absent for a peer that is refused; the log then says why. From here on the connection takes messages only from what
  // was decided on.
  [[nodiscard]] std::optional<PeerDecision> decide(TransportConnection& connection, HelperLog& log);

 private:
  struct Claim {
    int pid = 0;
    std::optional<std::uint32_t> tokenUser;  // absent without a token
    PeerIdentity identity;
  };
  [[nodiscard]] Claim claimOf(const PeerCredentials& peer);
  [[nodiscard]] std::string describe(const Claim& claim);

  PeerIdentities& peers_;
  PeerIdentityCache cache_;
};

}  // namespace quillmark
