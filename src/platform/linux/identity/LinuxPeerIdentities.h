// LinuxPeerIdentities: peers of a unix socket, by what the kernel says of them and by the signed note of their program.
// A program counts when it is a regular file of root's that nobody else can write, on a local file system, whose note is
// signed by a key that we trust. That a user other than root runs it, and has put nothing into it, is known by the group
// that its file gives it (setgid): the kernel then keeps its user out of it.
// Ownership: borrows the dispatch.
// Threads:   thread-safe. What may not answer is asked on threads that are bounded in number and in time.
#pragma once

#include <memory>

#include "platform/PeerIdentity.h"
#include "platform/linux/identity/ClientGroups.h"
#include "platform/linux/identity/IdentityThreads.h"
#include "platform/linux/identity/ProgramChecks.h"

namespace quillmark::os {

struct PeerIdentityOptions {
  CodeAnchor anchor;
  std::uint32_t owner = 0;  // whose programs count
  IdentityThreads::Limits threads = {};
};

class LinuxPeerIdentities : public PeerIdentities {
 public:
  LinuxPeerIdentities(Dispatch& dispatch, const PeerIdentityOptions& options);

  bool admits(const PeerCredentials& peer) override;
  std::optional<std::vector<std::uint32_t>> auditToken(const PeerCredentials& peer) override;
  PeerIdentity identityByToken(const PeerCredentials& peer, std::string_view requirement) override;
  PeerIdentity identityByProcess(const PeerCredentials& peer) override;
  std::optional<std::string> processPath(int pid) override;
  std::optional<std::uint32_t> processUser(int pid) override;

  // How many programs were read whole to verify them.
  [[nodiscard]] unsigned programsRead() const { return programs_->filesRead(); }

 private:
  [[nodiscard]] std::optional<ProgramIdentity> programOf(const PeerCredentials& peer);

  IdentityThreads threads_;
  ClientGroups groups_;
  const std::shared_ptr<ProgramChecks> programs_;
};

}  // namespace quillmark::os
