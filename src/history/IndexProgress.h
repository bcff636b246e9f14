// IndexProgress: how far each volume's index run has come, told to clients in order.
// Ownership: borrows the providers, which are installed before the first run.
// Threads:   thread-safe; the reporter runs on the push queue alone.
#pragma once

#include <map>
#include <memory>
#include <vector>

#include "base/Uuid.h"
#include "history/HistoryProviders.h"
#include "platform/dispatch.h"

namespace quillmark {

class IndexProgress final {
 public:
  IndexProgress(Threads& threads, std::shared_ptr<Queue> pushQueue, const HistoryProviders& providers)
      : pushQueue_(std::move(pushQueue)), providers_(providers), active_(threads) {}

  // The volume's run is at this snapshot from now on.
  void begin(const VolumeUuid& volume, Xid xid, const std::string& phase = "indexing");
  // Of a scan; told as long as the run is indexing that snapshot, and never less than before: a scan tells some of what
  // turns out to be excluded.
  void counted(const VolumeUuid& volume, Xid xid, std::int64_t files);
  void remove(const VolumeUuid& volume);
  void done(const VolumeUuid& volume);
  [[nodiscard]] std::vector<ActiveIndexProgress> active();

 private:
  void push(ActiveIndexProgress progress);

  const std::shared_ptr<Queue> pushQueue_;
  const HistoryProviders& providers_;
  Guarded<std::map<VolumeUuid, ActiveIndexProgress>> active_;
};

}  // namespace quillmark
