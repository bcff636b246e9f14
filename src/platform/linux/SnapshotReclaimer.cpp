#include "platform/linux/SnapshotReclaimer.h"

#include <algorithm>
#include <cerrno>
#include <vector>

namespace quillmark::os {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds firstLook{5};
constexpr milliseconds longestPause{2560};
// The cleaner is set to work by a commit; one that had just come before it, or found nothing to write, passes it by.
constexpr milliseconds nudges[] = {milliseconds(80), milliseconds(640), milliseconds(2560)};
// A snapshot that somebody reads in keeps its space until he is done; the kernel then does the rest by itself.
constexpr std::chrono::minutes patience{2};

bool isGone(int fd, const btrfs::Subvolume& snapshot) {
  const auto found = btrfs::findSubvolume(fd, snapshot.id);
  return found ? found->subvolume.uuid != snapshot.uuid : found.error() == ENOENT;
}

}  // namespace

class SnapshotReclaimer::Work final : public std::enable_shared_from_this<Work> {
 public:
  Work(Dispatch& dispatch, std::shared_ptr<Group> underWay)
      : dispatch_(dispatch), queue_(dispatch.makeQueue({.label = "com.harrowfern.quillmark.reclaim",
                                                        .concurrent = false,
                                                        .qualityOfService = QualityOfService::utility})),
        underWay_(std::move(underWay)), busy_(dispatch), mutex_(dispatch) {}

  void add(const FileSystemSource& source, const btrfs::Subvolume& snapshot) {
    MutexLock lock(mutex_);
    source_ = source;
    fresh_.push_back(snapshot);
    if (isRunning_) return;
    isRunning_ = true;
    underWay_->enter();
    busy_.enter();
    queue_->async([self = shared_from_this()] { self->begin(); });
  }

  [[nodiscard]] bool waitFor(std::chrono::nanoseconds duration) { return busy_.waitFor(duration); }

 private:
  // Takes what has gathered and commits, which sets the cleaner to work.
  void begin() {
    FileSystemSource source;
    {
      MutexLock lock(mutex_);
      source = source_;
      waiting_.insert(waiting_.end(), fresh_.begin(), fresh_.end());
      fresh_.clear();
    }
    until_ = dispatch_.clock().monotonic() + patience;
    nudgesLeft_.assign(std::begin(nudges), std::end(nudges));
    if (!withMount(source, [](int fd) { static_cast<void>(btrfs::commit(fd)); })) waiting_.clear();
    look(source, firstLook);
  }

  void look(const FileSystemSource& source, milliseconds pause) {
    const bool mounted = !waiting_.empty() && withMount(source, [&](int fd) {
      std::erase_if(waiting_, [&](const btrfs::Subvolume& snapshot) { return isGone(fd, snapshot); });
      // What the cleaner freed can be used only after the next commit.
      if (waiting_.empty()) {
        static_cast<void>(btrfs::commit(fd));
      } else if (std::find(nudgesLeft_.begin(), nudgesLeft_.end(), pause) != nudgesLeft_.end()) {
        std::erase(nudgesLeft_, pause);
        static_cast<void>(btrfs::syncAndClean(fd));
      }
    });
    if (!mounted || dispatch_.clock().monotonic() >= until_) waiting_.clear();
    if (waiting_.empty()) return finish();
    queue_->asyncAfter(pause, [self = shared_from_this(), source, next = std::min(pause * 2, longestPause)] {
      self->look(source, next);
    });
  }

  void finish() {
    {
      MutexLock lock(mutex_);
      if (!fresh_.empty()) {
        queue_->async([self = shared_from_this()] { self->begin(); });
        return;
      }
      isRunning_ = false;
      busy_.leave();
    }
    underWay_->leave();
  }

  // False when no user has the file system mounted writable any more.
  static bool withMount(const FileSystemSource& source, FunctionRef<void(int)> use) {
    const auto mount = PrivateMount::openTopLevel(source);
    if (!mount) return false;
    use(mount->root());
    return true;
  }

  Dispatch& dispatch_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<Group> underWay_;
  Group busy_;  // with what is under way here

  // Confined to queue_.
  std::vector<btrfs::Subvolume> waiting_;
  MonotonicTime until_;
  std::vector<milliseconds> nudgesLeft_;

  Mutex mutex_;
  bool isRunning_ GUARDED_BY(mutex_) = false;
  FileSystemSource source_ GUARDED_BY(mutex_);
  std::vector<btrfs::Subvolume> fresh_ GUARDED_BY(mutex_);
};

SnapshotReclaimer::SnapshotReclaimer(Dispatch& dispatch)
    : dispatch_(dispatch), underWay_(std::make_shared<Group>(dispatch)), mutex_(dispatch) {}

SnapshotReclaimer::~SnapshotReclaimer() = default;

void SnapshotReclaimer::add(const FileSystemSource& source, const btrfs::Subvolume& snapshot) {
  std::shared_ptr<Work> work;
  {
    MutexLock lock(mutex_);
    auto& slot = works_[source.fsid];
    if (!slot) slot = std::make_shared<Work>(dispatch_, underWay_);
    work = slot;
  }
  work->add(source, snapshot);
}

bool SnapshotReclaimer::waitFor(std::chrono::nanoseconds duration) { return underWay_->waitFor(duration); }

bool SnapshotReclaimer::waitFor(const Uuid& fsid, std::chrono::nanoseconds duration) {
  std::shared_ptr<Work> work;
  {
    MutexLock lock(mutex_);
    const auto found = works_.find(fsid);
    if (found == works_.end()) return true;
    work = found->second;
  }
  return work->waitFor(duration);
}

}  // namespace quillmark::os
