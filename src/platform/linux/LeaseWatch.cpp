#include "platform/linux/LeaseWatch.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>

#include "base/Error.h"
#include "platform/dispatch.h"
#include "platform/linux/BtrfsMount.h"
#include "platform/linux/MountTableSignal.h"

namespace quillmark::os {
namespace {

constexpr std::chrono::milliseconds pause{100};

class LeaseLoop final {
 public:
  LeaseLoop(std::shared_ptr<Queue> queue, std::string privateRoot, UniqueFunction<void()> onRevoked)
      : queue_(std::move(queue)), privateRoot_(std::move(privateRoot)),
        onRevoked_(std::make_shared<UniqueFunction<void()>>(std::move(onRevoked))) {}

  // The signal was made before, so that no change falls between.
  [[nodiscard]] bool begin(const std::string& mountPoint) {
    if (!signal_.isValid()) return false;
    const auto table = MountTable::read();
    const MountEntry* entry = table ? table->at(mountPoint) : nullptr;
    if (!entry) return false;
    device_ = entry->device;
    return true;
  }

  // False once it is over.
  [[nodiscard]] bool step() {
    const bool changed = signal_.wait(missed_ ? std::optional(pause) : std::nullopt);
    if (*ended_) return false;
    if (!changed && !missed_) return true;
    const auto table = MountTable::read();
    missed_ = !table.ok();
    if (!missed_ && !hasOtherMounts(*table, device_, privateRoot_)) {
      revoke(*table);
      return false;
    }
    signal_.pause(pause);
    return !*ended_;
  }

  void end() {
    *ended_ = true;
    signal_.wake();
  }

 private:
  void revoke(const MountTable& table) {
    queue_->async([handler = onRevoked_, ended = ended_] {
      if (!*ended) (*handler)();
    });
    // Their unmount wrote nothing out, because of our mount; somebody may pull the plug any moment.
    for (const MountEntry& entry : table.entries()) {
      if (!(entry.device == device_) || !entry.isBtrfs()) continue;
      if (const auto root = openMount(entry)) {
        ::syncfs(root->get());
        return;
      }
    }
  }

  const std::shared_ptr<Queue> queue_;
  const std::string privateRoot_;
  const std::shared_ptr<UniqueFunction<void()>> onRevoked_;
  const std::shared_ptr<std::atomic<bool>> ended_ = std::make_shared<std::atomic<bool>>(false);
  MountTableSignal signal_;
  DeviceNumber device_;
  bool missed_ = false;  // the last look saw nothing, as when descriptors had run out; the loop's alone
};

class FileSystemLease final : public MountLease {
 public:
  explicit FileSystemLease(std::shared_ptr<LeaseLoop> loop) : loop_(std::move(loop)) {}
  ~FileSystemLease() override { loop_->end(); }
  FileSystemLease(const FileSystemLease&) = delete;
  FileSystemLease& operator=(const FileSystemLease&) = delete;

 private:
  const std::shared_ptr<LeaseLoop> loop_;
};

}  // namespace

bool hasOtherMounts(const MountTable& table, DeviceNumber device, const std::string& privateRoot) {
  return std::any_of(table.entries().begin(), table.entries().end(), [&](const MountEntry& entry) {
    return entry.device == device && !entry.mountPoint.starts_with(privateRoot + "/");
  });
}

std::unique_ptr<MountLease> leaseFileSystem(Dispatch& dispatch, std::shared_ptr<Queue> queue,
                                            const std::string& mountPoint, const std::string& privateRoot,
                                            UniqueFunction<void()> onRevoked) {
  auto loop = std::make_shared<LeaseLoop>(std::move(queue), privateRoot, std::move(onRevoked));
  if (!loop->begin(mountPoint)) return nullptr;
  try {
    dispatch.throwAwayThread("com.harrowfern.quillmark.helper.lease", [loop] {
      while (loop->step()) {
      }
    });
  } catch (const Error&) {
    return nullptr;  // no room for a thread
  }
  return std::make_unique<FileSystemLease>(std::move(loop));
}

}  // namespace quillmark::os
