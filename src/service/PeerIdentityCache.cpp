#include "service/PeerIdentityCache.h"

namespace quillmark {

PeerIdentity PeerIdentityCache::lookUp(const Key& key, FunctionRef<PeerIdentity()> resolve) {
  if (auto identity = known(key)) return std::move(*identity);
  PeerIdentity identity = resolve();
  store(key, identity);
  return identity;
}

std::optional<PeerIdentity> PeerIdentityCache::known(const Key& key) {
  const Date now = clock_.now();
  MutexLock lock(lock_);
  std::erase_if(entries_, [&](const auto& entry) { return now - entry.second.at >= lifetime; });
  const auto found = entries_.find(key);
  return found == entries_.end() ? std::nullopt : std::optional(found->second.identity);
}

void PeerIdentityCache::store(const Key& key, const PeerIdentity& identity) {
  const Date now = clock_.now();
  MutexLock lock(lock_);
  if (entries_.size() >= mostEntries) entries_.clear();
  entries_.insert_or_assign(key, Entry{identity, now});
}

}  // namespace quillmark
