// DiffCache: comparisons that were written for a user, as files which that user alone may read. By user, volume and pair
// of snapshots below the shared directory; good for six hours.
// Ownership: borrows the platform's calls.
// Threads:   thread-safe; blocks for the disk.
// Errors:    write throws Error. Reading and purging never fail: what can't be read counts as absent.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "base/Uuid.h"
#include "base/Xid.h"
#include "history/HistoryCaches.h"
#include "platform/HostPaths.h"
#include "snapshots/SafeFS.h"

namespace quillmark {

class Clock;
struct DiffResult;

class DiffCache final : public HistoryCaches {
 public:
  struct Request {
    std::uint32_t uid = 0;  // whose file it is
    VolumeUuid volume;
    Xid xidA, xidB;  // as asked for
    bool includeTree = false;
    bool ignoreExclusions = false;
  };

  DiffCache(FileWork& work, const SafeFS& files, Clock& clock, const HostPaths& paths);

  // The path of a file that is still good.
  [[nodiscard]] std::optional<std::string> find(const Request& request) const;
  // Its path, once it is whole; files of that user past their time go first.
  std::string write(const Request& request, const DiffResult& result) const;

  // HistoryCaches, for all users.
  void purge(const VolumeUuid& volume) override;
  void purge(const VolumeUuid& volume, const std::set<Xid>& xids) override;
  void purgeAll() override {}  // files go volume by volume

 private:
  struct Place {
    std::string user, volume, file;
  };
  [[nodiscard]] static Place placeOf(const Request& request);
  [[nodiscard]] bool isFresh(const StatRecord& record) const;
  void sweep(const SafeFS::Directory& user) const;
  void removeMatching(const VolumeUuid& volume, FunctionRef<bool(const std::string&)> matches) const;

  FileWork& work_;
  const SafeFS& files_;
  Clock& clock_;
  const std::string shared_;
};

}  // namespace quillmark
