// PeerIdentityCache: what was found out about peers, so that a program isn't looked into for each of its connections.
// Ownership: borrows the clock.
// Threads:   thread-safe; resolvers run outside the lock. Two threads that miss on one key both resolve, and the later
//            write stands.
// Bounds:    64 entries, each for less than 300 seconds.
#pragma once

#include <array>
#include <cstdint>
#include <map>

#include "base/Date.h"
#include "base/FunctionRef.h"
#include "platform/PeerIdentity.h"
#include "platform/sync.h"

namespace quillmark {

class PeerIdentityCache final {
 public:
  // The words of an audit token, all of which count.
  struct Key {
    std::array<std::uint32_t, auditTokenWords> values{};
    auto operator<=>(const Key&) const = default;
  };
  static constexpr Seconds lifetime{300};
  static constexpr std::size_t mostEntries = 64;

  explicit PeerIdentityCache(Threads& threads) : clock_(threads.clock()), lock_(threads) {}

  [[nodiscard]] PeerIdentity lookUp(const Key& key, FunctionRef<PeerIdentity()> resolve) EXCLUDES(lock_);

 private:
  struct Entry {
    PeerIdentity identity;
    Date at;
  };
  [[nodiscard]] std::optional<PeerIdentity> known(const Key& key) EXCLUDES(lock_);
  void store(const Key& key, const PeerIdentity& identity) EXCLUDES(lock_);

  Clock& clock_;
  Mutex lock_;
  std::map<Key, Entry> entries_ GUARDED_BY(lock_);
};

}  // namespace quillmark
