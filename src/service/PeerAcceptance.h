// PeerAcceptance: whether a peer may talk to the service, as what kind of client, and for which user.
// Threads: pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "journal/HelperEvent.h"
#include "platform/Transport.h"

namespace quillmark {

struct PeerDecision {
  HelperEvent::Client client = HelperEvent::Client::unknown;
  std::optional<std::uint32_t> peerUID;
  // The log line of a refusal; absent for a peer that is let in.
  std::optional<std::string> refusal;
};

// Only root is let in, as a command line client.
[[nodiscard]] PeerDecision decidePeer(const PeerCredentials& peer);

}  // namespace quillmark
