// ComparisonCache: the last two comparisons, at most one of them with a whole tree. Memory only.
// Ownership: borrows the caches behind it, which are purged with it; null when there are none.
// Threads:   thread-safe; what was given out stays whole after it left the cache.
#pragma once

#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "history/Comparison.h"
#include "history/HistoryCaches.h"
#include "platform/sync.h"

namespace quillmark {

class ComparisonCache final : public HistoryCaches {
 public:
  static constexpr std::size_t capacity = 2;

  explicit ComparisonCache(Threads& threads, HistoryCaches* behind = nullptr) : behind_(behind), entries_(threads) {}

  // Null when it isn't there; one that is counts as the newest from then on.
  [[nodiscard]] std::shared_ptr<const Comparison> find(const ComparisonKey& key);
  void insert(const ComparisonKey& key, std::shared_ptr<const Comparison> comparison);

  // HistoryCaches
  void purge(const VolumeUuid& volume) override;
  void purge(const VolumeUuid& volume, const std::set<Xid>& xids) override;
  void purgeAll() override;

 private:
  using Entry = std::pair<ComparisonKey, std::shared_ptr<const Comparison>>;
  template <class Matches>
  void removeIf(Matches matches);

  HistoryCaches* const behind_;
  Guarded<std::vector<Entry>> entries_;  // oldest first
};

}  // namespace quillmark
