#include "platform/linux/MountWatch.h"

#include "base/Error.h"
#include "platform/linux/DiskEventDelivery.h"
#include "platform/linux/MountChanges.h"
#include "platform/linux/MountTableSignal.h"
#include "platform/linux/Threads.h"

namespace quillmark::os {
namespace {

// Between two looks, however quickly mounts come and go.
constexpr std::chrono::milliseconds pause{100};

class MountLoop final {
 public:
  MountLoop(Disks& disks, std::shared_ptr<DiskEventDelivery> delivery)
      : disks_(disks), delivery_(std::move(delivery)) {}

  // Takes in what is mounted already. The table was opened before, so that no change falls between.
  [[nodiscard]] bool begin() {
    if (!signal_.isValid()) return false;
    const auto table = MountTable::read();
    if (!table) return false;
    NativeLock lock(mutex_);
    static_cast<void>(changes_.update(*table));
    for (const MountChanges::Key& key : changes_.mounted()) described_[key] = describe(key);
    return true;
  }

  // False once the watch was dropped.
  [[nodiscard]] bool step() {
    const bool changed = signal_.wait(missed_ ? std::optional(pause) : std::nullopt);
    if (changed || missed_) {
      look();
      signal_.pause(pause);
    }
    NativeLock lock(mutex_);
    return !stopped_;
  }

  void stop() {
    delivery_->end();
    {
      NativeLock lock(mutex_);
      stopped_ = true;
    }
    signal_.wake();
  }

 private:
  void look() {
    const auto table = MountTable::read();
    missed_ = !table.ok();
    NativeLock lock(mutex_);
    if (stopped_ || missed_) return;
    for (const MountChanges::Change& change : changes_.update(*table)) tell(change);
  }

  void tell(const MountChanges::Change& change) REQUIRES(mutex_) {
    DiskEvent event;
    if (change.kind == DiskEvent::Kind::servedElsewhere) {
      event.volumePath = change.key.second;
    } else if (change.kind == DiskEvent::Kind::disappeared) {
      event = std::move(described_.extract(change.key).mapped());
    } else {
      event = described_[change.key] = describe(change.key);
    }
    event.kind = change.kind;
    delivery_->deliver(std::move(event));
  }

  DiskEvent describe(const MountChanges::Key& key) REQUIRES(mutex_) {
    DiskEvent event{.kind = {}, .volumePath = key.second, .volumeKind = {}, .mediaBsdName = {}};
    if (auto description = disks_.describe(key.second)) {
      event.volumeKind = std::move(description->volumeKind);
      event.mediaBsdName = std::move(description->mediaBsdName);
    }
    return event;
  }

  Disks& disks_;
  const std::shared_ptr<DiskEventDelivery> delivery_;
  MountTableSignal signal_;
  bool missed_ = false;  // the last look saw nothing, as when descriptors had run out; the loop's alone

  NativeMutex mutex_;  // held while the disks are asked, so that they are left alone once stop() returned
  bool stopped_ GUARDED_BY(mutex_) = false;
  MountChanges changes_ GUARDED_BY(mutex_);
  std::map<MountChanges::Key, DiskEvent> described_ GUARDED_BY(mutex_);  // of what is mounted
};

class MountWatch final : public DiskWatch {
 public:
  explicit MountWatch(std::shared_ptr<MountLoop> loop) : loop_(std::move(loop)) {}
  ~MountWatch() override { loop_->stop(); }
  MountWatch(const MountWatch&) = delete;
  MountWatch& operator=(const MountWatch&) = delete;

 private:
  const std::shared_ptr<MountLoop> loop_;
};

}  // namespace

std::unique_ptr<DiskWatch> watchMounts(Disks& disks, Dispatch& dispatch, std::shared_ptr<Queue> queue,
                                       Disks::DiskEventHandler handler) {
  auto loop =
      std::make_shared<MountLoop>(disks, std::make_shared<DiskEventDelivery>(std::move(queue), std::move(handler)));
  if (!loop->begin()) return nullptr;
  try {
    dispatch.throwAwayThread("com.harrowfern.quillmark.helper.mounts", [loop] {
      while (loop->step()) {
      }
    });
  } catch (const Error&) {
    return nullptr;  // no room for a thread
  }
  return std::make_unique<MountWatch>(std::move(loop));
}

}  // namespace quillmark::os
