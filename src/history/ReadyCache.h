// ReadyCache: the ready XIDs of each volume as they were last seen. A set that was read is kept only when nothing was
// committed meanwhile.
// Threads: thread-safe.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <utility>

#include "base/Uuid.h"
#include "base/Xid.h"
#include "history/HistoryConnection.h"
#include "platform/sync.h"

namespace quillmark {

class ReadyCache final {
 public:
  explicit ReadyCache(Threads& threads) : cache_(threads) {}

  void load(HistoryConnection& connection) {
    HistoryStatement rows =
        connection.prepare("SELECT volume_uuid,xid FROM snapshots WHERE state='ready' ORDER BY volume_uuid,xid");
    while (rows.next("read ready snapshots")) add(VolumeUuid(rows.text(0)), rows.xid(1));
  }
  void add(const VolumeUuid& volume, Xid xid) {
    cache_.with([&](Cache& cache) {
      cache.ready[volume].insert(xid);
      ++cache.version;
    });
  }
  void replace(const VolumeUuid& volume, std::set<Xid> xids) {
    cache_.with([&](Cache& cache) {
      cache.ready[volume] = std::move(xids);
      ++cache.version;
    });
  }
  void clear() {
    cache_.with([](Cache& cache) {
      cache.ready.clear();
      ++cache.version;
    });
  }
  [[nodiscard]] std::uint64_t version() {
    return cache_.with([](const Cache& cache) { return cache.version; });
  }
  void replaceIfStill(std::uint64_t version, const VolumeUuid& volume, const std::set<Xid>& xids) {
    cache_.with([&](Cache& cache) {
      if (cache.version == version) cache.ready[volume] = xids;
    });
  }
  [[nodiscard]] std::set<Xid> of(const VolumeUuid& volume) {
    return cache_.with([&](const Cache& cache) {
      const auto found = cache.ready.find(volume);
      return found == cache.ready.end() ? std::set<Xid>{} : found->second;
    });
  }

 private:
  struct Cache {
    std::map<VolumeUuid, std::set<Xid>> ready;
    std::uint64_t version = 0;
  };
  Guarded<Cache> cache_;
};

}  // namespace quillmark
