// SimPeerIdentities: what is known of peers, as tests write it down by process ID. A peer of which nothing was written is
// the genuine command line client, admitted when it is root's.
// Threads: what is written down must not change while peers are asked for.
#pragma once

#include <atomic>
#include <map>
#include <string>

#include "platform/PeerIdentity.h"
#include "platform/Transport.h"

namespace quillmark::sim {

struct SimPeerFacts {
  bool admitted = true;
  // Absent for none; the usual words, or others in their place.
  std::optional<std::vector<std::uint32_t>> token;
  PeerIdentity identity{.bundleID = "com.harrowfern.quillmark.cli", .satisfiesRequirement = true};
  std::optional<std::string> path = "/usr/local/bin/quill";
  std::optional<std::uint32_t> user = 0;
};

class SimPeerIdentities final : public PeerIdentities {
 public:
  // The token of a program; programs are told apart by a number.
  [[nodiscard]] static std::vector<std::uint32_t> usualToken(const PeerCredentials& peer, std::uint32_t program = 7) {
    return {0, peer.uid, peer.gid, 0, 0, static_cast<std::uint32_t>(peer.pid), 0, program};
  }

  void set(int pid, SimPeerFacts facts) { facts_[pid] = std::move(facts); }
  // How often code was looked into.
  [[nodiscard]] unsigned resolutions() const { return resolutions_; }

  bool admits(const PeerCredentials& peer) override {
    const auto found = facts_.find(peer.pid);
    return found == facts_.end() ? peer.uid == 0 : found->second.admitted;
  }
  std::optional<std::vector<std::uint32_t>> auditToken(const PeerCredentials& peer) override {
    const auto found = facts_.find(peer.pid);
    return found == facts_.end() ? usualToken(peer) : found->second.token;
  }
  PeerIdentity identityByToken(const PeerCredentials& peer, std::string_view /*requirement*/) override {
    ++resolutions_;
    return factsOf(peer.pid).identity;
  }
  PeerIdentity identityByProcess(const PeerCredentials& peer) override {
    ++resolutions_;
    return {factsOf(peer.pid).identity.bundleID, false};
  }
  std::optional<std::string> processPath(int pid) override { return factsOf(pid).path; }
  std::optional<std::uint32_t> processUser(int pid) override { return factsOf(pid).user; }

 private:
  [[nodiscard]] SimPeerFacts factsOf(int pid) const {
    const auto found = facts_.find(pid);
    return found == facts_.end() ? SimPeerFacts() : found->second;
  }

  std::map<int, SimPeerFacts> facts_;
  std::atomic<unsigned> resolutions_ = 0;
};

}  // namespace quillmark::sim
