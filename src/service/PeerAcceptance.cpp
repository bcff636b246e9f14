#include "service/PeerAcceptance.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/HelperLog.h"
#include "platform/NameText.h"
#include "platform/Transport.h"
#include "wire/QuillmarkXPC.h"

namespace quillmark {
namespace {

std::uint32_t wordOf(const PeerIdentityCache::Key& token, AuditTokenWord word) {
  return token.values[static_cast<std::size_t>(word)];
}

std::optional<PeerIdentityCache::Key> tokenOf(const std::optional<std::vector<std::uint32_t>>& words) {
  PeerIdentityCache::Key token;
  if (!words || words->size() != token.values.size()) return std::nullopt;
  std::copy(words->begin(), words->end(), token.values.begin());
  return token;
}

HelperEvent::Client classify(const std::optional<std::string>& bundleID) {
  if (bundleID == QuillmarkXPC::guiIdentifier) return HelperEvent::Client::gui;
  if (bundleID == QuillmarkXPC::cliIdentifier) return HelperEvent::Client::cli;
  if (bundleID == QuillmarkXPC::finderSyncIdentifier) return HelperEvent::Client::finderSync;
  return HelperEvent::Client::unknown;
}

std::string failedRequirement(int pid) {
  return fmt::format("Rejecting connection from pid={}: peer failed the designated requirement", pid);
}

std::string unresolved(int pid) {
  return fmt::format("Rejecting connection from pid={}: peer identity could not be resolved", pid);
}

}  // namespace

PeerAcceptance::Claim PeerAcceptance::claimOf(const PeerCredentials& peer) {
  const auto token = tokenOf(peers_.auditToken(peer));
  if (!token) return {peer.pid, std::nullopt, peers_.identityByProcess(peer)};
  const auto resolve = [&] { return peers_.identityByToken(peer, QuillmarkXPC::designatedRequirement); };
  return {static_cast<int>(wordOf(*token, AuditTokenWord::process)), wordOf(*token, AuditTokenWord::effectiveUser),
          cache_.lookUp(*token, resolve)};
}

std::string PeerAcceptance::describe(const Claim& claim) {
  const std::optional<std::string> path = peers_.processPath(claim.pid);
  const std::string shown = path ? displayName(*path) : "?";
  return claim.identity.bundleID ? *claim.identity.bundleID + " @ " + shown : shown;
}

std::optional<PeerDecision> PeerAcceptance::decide(TransportConnection& connection, HelperLog& log) {
  const PeerCredentials& peer = connection.peer();
  if (!peers_.admits(peer)) {
    log.info(fmt::format("Peer pid={} uid={} is neither root's nor an installed client of an admitted user", peer.pid,
                         peer.uid));
    log.error(failedRequirement(peer.pid));
    return std::nullopt;
  }
  const Claim claim = claimOf(peer);
  log.info(fmt::format("Incoming XPC connection from pid={} ({})", claim.pid, describe(claim)));
  connection.setCodeSigningRequirement(QuillmarkXPC::designatedRequirement);
  log.info(fmt::format("Connection from pid={} will be checked against the designated requirement", claim.pid));
  if (claim.tokenUser && !claim.identity.satisfiesRequirement) {
    log.error(failedRequirement(claim.pid));
    return std::nullopt;
  }
  const HelperEvent::Client client = classify(claim.identity.bundleID);
  const std::optional<std::uint32_t> user = claim.tokenUser ? claim.tokenUser : peers_.processUser(claim.pid);
  if (!user || client == HelperEvent::Client::unknown) {
    log.error(unresolved(claim.pid));
    return std::nullopt;
  }
  return PeerDecision{claim.pid, client, *user};
}

}  // namespace quillmark
