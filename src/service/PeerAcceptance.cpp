#include "service/PeerAcceptance.h"

#include <fmt/format.h>

namespace quillmark {

PeerDecision decidePeer(const PeerCredentials& peer) {
  if (peer.uid != 0) {
    return {HelperEvent::Client::unknown, std::nullopt,
            fmt::format("Rejecting connection from pid={}: peer failed the designated requirement", peer.pid)};
  }
  return {HelperEvent::Client::cli, peer.uid, std::nullopt};
}

}  // namespace quillmark
