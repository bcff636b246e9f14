// HistoryWork: whether the history may work now, and whether it should go on.
// Ownership: borrows the services and the providers.
// Threads:   thread-safe.
#pragma once

#include <atomic>
#include <string>

#include "base/Error.h"
#include "history/HistoryProviders.h"
#include "history/HistoryServices.h"

namespace quillmark {

class HistoryWork final {
 public:
  HistoryWork(const HistoryServices& services, const HistoryProviders& providers)
      : services_(services), providers_(providers) {}

  // Not while it is switched off.
  [[nodiscard]] bool isEnabled() const;
  // Not on battery, unless people want it so.
  [[nodiscard]] bool hasPower() const;
  [[nodiscard]] bool isTracked(const std::string& volumeUUID) const;

  // The helper leaves: for good.
  void stop() { stopped_ = true; }
  [[nodiscard]] bool isStopped() const { return stopped_; }

  // While it lives, scans end soon and none goes on: for what has to wait until all runs are out of the way.
  class Interruption final {
   public:
    explicit Interruption(HistoryWork& work) : work_(work) { ++work_.interruptions_; }
    ~Interruption() { --work_.interruptions_; }
    Interruption(const Interruption&) = delete;
    Interruption& operator=(const Interruption&) = delete;

   private:
    HistoryWork& work_;
  };
  [[nodiscard]] bool mustEnd() const { return stopped_ || interruptions_ > 0; }

  // Work that was told to end, by whoever told it.
  [[nodiscard]] static Error cancelled(const std::string& what);
  [[nodiscard]] static bool isCancellation(const Error& failure);
  // A scan of a snapshot that somebody needs for himself: it may begin anew once he is done.
  [[nodiscard]] static Error claimed(const std::string& snapshot);
  [[nodiscard]] static bool isClaim(const Error& failure);

 private:
  const HistoryServices& services_;
  const HistoryProviders& providers_;
  std::atomic<bool> stopped_{false};
  std::atomic<int> interruptions_{0};
};

}  // namespace quillmark
