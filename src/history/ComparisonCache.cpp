#include "history/ComparisonCache.h"

#include <algorithm>

namespace quillmark {

std::shared_ptr<const Comparison> ComparisonCache::find(const ComparisonKey& key) {
  return entries_.with([&](std::vector<Entry>& entries) -> std::shared_ptr<const Comparison> {
    const auto found =
        std::find_if(entries.begin(), entries.end(), [&](const Entry& entry) { return entry.first == key; });
    if (found == entries.end()) return nullptr;
    std::rotate(found, found + 1, entries.end());
    return entries.back().second;
  });
}

void ComparisonCache::insert(const ComparisonKey& key, std::shared_ptr<const Comparison> comparison) {
  // What leaves is freed after the lock: a tree is large.
  std::vector<Entry> gone;
  entries_.with([&](std::vector<Entry>& entries) {
    const auto leaves = [&](const Entry& entry) {
      return entry.first == key || (key.includeTree && entry.first.includeTree);
    };
    const auto stay = std::stable_partition(entries.begin(), entries.end(), std::not_fn(leaves));
    std::move(stay, entries.end(), std::back_inserter(gone));
    entries.erase(stay, entries.end());
    entries.emplace_back(key, std::move(comparison));
    while (entries.size() > capacity) {
      gone.push_back(std::move(entries.front()));
      entries.erase(entries.begin());
    }
  });
}

template <class Matches>
void ComparisonCache::removeIf(Matches matches) {
  entries_.with([&](std::vector<Entry>& entries) {
    std::erase_if(entries, [&](const Entry& entry) { return matches(entry.first); });
  });
}

void ComparisonCache::purge(const VolumeUuid& volume) {
  removeIf([&](const ComparisonKey& key) { return key.volume == volume; });
  if (behind_) behind_->purge(volume);
}

void ComparisonCache::purge(const VolumeUuid& volume, const std::set<Xid>& xids) {
  removeIf([&](const ComparisonKey& key) {
    return key.volume == volume && (xids.contains(key.xidA) || xids.contains(key.xidB));
  });
  if (behind_) behind_->purge(volume, xids);
}

void ComparisonCache::purgeAll() {
  removeIf([](const ComparisonKey&) { return true; });
  if (behind_) behind_->purgeAll();
}

}  // namespace quillmark
