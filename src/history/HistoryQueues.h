// HistoryQueues: where the history's work runs. All work on a volume holds two things: the volume's serial queue, then a
// place in the epoch, which lets all volumes in at once and shuts them out for what concerns all of them.
// Threads: thread-safe.
#pragma once

#include <map>
#include <memory>

#include "base/FunctionRef.h"
#include "base/Uuid.h"
#include "platform/dispatch.h"

namespace quillmark {

class HistoryQueues final {
 public:
  explicit HistoryQueues(Dispatch& dispatch);

  // Runs the work on the volume's queue in the epoch; at once for a caller who is there already.
  void onVolume(const VolumeUuid& volume, FunctionRef<void()> work);
  // In the epoch alone: doesn't wait for what runs on the volume.
  void inEpoch(FunctionRef<void()> work);
  // While no volume's work runs.
  void alone(FunctionRef<void()> work);
  // Returns once all that was put on the queues before has run.
  void drain();
  // The volume's queue, made at its first use and kept.
  [[nodiscard]] std::shared_ptr<Queue> queue(const VolumeUuid& volume);

  const std::shared_ptr<Queue> timer;
  const std::shared_ptr<Queue> progressPush;
  const std::shared_ptr<Queue> rebuild;
  const std::shared_ptr<Queue> globalIndex;
  const std::shared_ptr<Queue> lease;

 private:
  Dispatch& dispatch_;
  const std::shared_ptr<Queue> epoch_;
  Guarded<std::map<VolumeUuid, std::shared_ptr<Queue>>> volumes_;
};

}  // namespace quillmark
