// PeerIdentities: who and what a connected peer is, by the kernel's word and by what the peer's own code carries.
// Threads: thread-safe; calls for several peers may overlap.
// Bounds:  a peer whose program can't be read in time counts as one without identity, and delays nobody else.
// Errors:  none; what can't be told is absent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmark {

struct PeerCredentials;

inline constexpr std::size_t auditTokenWords = 8;
// Where the audit token holds the facts that are read from it.
enum class AuditTokenWord : std::size_t { effectiveUser = 1, effectiveGroup = 2, process = 5 };

// What the code of a peer says of itself.
struct PeerIdentity {
  std::optional<std::string> bundleID;  // the code-signing identifier
  bool satisfiesRequirement = false;
  bool operator==(const PeerIdentity&) const = default;
};

class PeerIdentities {
 public:
  virtual ~PeerIdentities() = default;

  // Whether the peer's user may talk to the service at all. Looks at no file of the peer's.
  [[nodiscard]] virtual bool admits(const PeerCredentials& peer) = 0;
  // The words of the peer's audit token; another program of the same process has another one. Absent when the platform
  // gives none; other than auditTokenWords of them are no token.
  [[nodiscard]] virtual std::optional<std::vector<std::uint32_t>> auditToken(const PeerCredentials& peer) = 0;
  // By the token just given: whose code it is, and whether it is valid and meets the requirement.
  [[nodiscard]] virtual PeerIdentity identityByToken(const PeerCredentials& peer, std::string_view requirement) = 0;
  // By the process ID alone: nothing is said of the requirement.
  [[nodiscard]] virtual PeerIdentity identityByProcess(const PeerCredentials& peer) = 0;
  // proc_pidpath and proc_pidinfo.
  [[nodiscard]] virtual std::optional<std::string> processPath(int pid) = 0;
  [[nodiscard]] virtual std::optional<std::uint32_t> processUser(int pid) = 0;
};

}  // namespace quillmark
