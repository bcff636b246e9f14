#include "history/LocalComparison.h"

#include <atomic>
#include <cerrno>
#include <map>

#include "base/HelperLog.h"
#include "history/MemoryReturn.h"
#include "history/Retries.h"
#include "history/SnapshotScanner.h"
#include "history/index/Comparison.h"
#include "platform/DirectoryReader.h"
#include "platform/posix.h"

namespace quillmark {
namespace {

constexpr int mostAtOnce = 2;
constexpr std::chrono::seconds pulse{1};
constexpr std::chrono::seconds patience{60};  // with a reader that doesn't get on
constexpr std::string_view action = "compare this item";

Error gone(const std::string& path) { return posixError("compare", path, ECANCELED); }

}  // namespace

// Who compares, and whose readers never came back.
class LocalComparisons::Places final {
 public:
  explicit Places(Threads& threads) : threads_(threads), mutex_(threads), freed_(threads) {}

  void take(const Request& request) EXCLUDES(mutex_) {
    const auto isAbandoned = [&] { return request.isAbandoned && request.isAbandoned(); };
    const std::uint32_t user = request.user.uid;
    MutexLock lock(mutex_);
    for (;;) {
      const auto own = users_.find(user);
      if (own != users_.end() && !own->second.empty()) throw PeerAuthorization::unresponsive(action, own->second);
      if (own == users_.end() && atOnce_ < mostAtOnce) break;
      if (isAbandoned()) throw gone(request.a.path);
      static_cast<void>(freed_.waitUntil(mutex_, after(threads_.clock().monotonic(), pulse)));
    }
    users_[user] = {};
    ++atOnce_;
  }
  void markStuck(std::uint32_t user, const std::string& path) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    users_[user] = path;
    --atOnce_;
    freed_.notifyAll();
  }
  void giveBack(std::uint32_t user) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    if (users_.at(user).empty()) --atOnce_;
    users_.erase(user);
    freed_.notifyAll();
  }

 private:
  Threads& threads_;
  Mutex mutex_;
  ConditionVariable freed_;
  int atOnce_ GUARDED_BY(mutex_) = 0;
  std::map<std::uint32_t, std::string> users_ GUARDED_BY(mutex_);  // with the path whose reader never came back
};

// Given back by the last of those who hold it: the comparison and its readers.
class LocalComparisons::Place final {
 public:
  Place(std::shared_ptr<Places> places, const Request& request) : places_(std::move(places)), user_(request.user.uid) {
    places_->take(request);
  }
  ~Place() { places_->giveBack(user_); }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;
  void markStuck(const std::string& path) { places_->markStuck(user_, path); }

 private:
  const std::shared_ptr<Places> places_;
  const std::uint32_t user_;
};

// Written by the reader before it signals, read by the comparison after that; but for the atomics.
struct LocalComparisons::Scan {
  Scan(Threads& threads, const Request& request, const Side& side, std::shared_ptr<Place> held)
      : ended(threads), user(request.user), item(side.item),
        place(std::move(held)), scan{.root = side.path,
                                     .parallel = user.uid == 0,
                                     .lowPriority = false,
                                     .qos = QualityOfService::userInitiated,
                                     .rules = request.rules,
                                     .baseComponents = request.baseComponents,
                                     .tolerant = true,
                                     .progress = [this](std::uint64_t read) { entries = read; },
                                     .isCancelled = [this] { return ++beats, isCancelled.load(); }} {}

  void read(Dispatch& dispatch, DirectoryReader& directories, Posix& posix, ThreadIdentity& identities, HelperLog& log,
            const std::shared_ptr<TreeMemory>& memory) {
    const auto opened =
        retried(dispatch, [&] { return item ? directories.openItem(item->fd()) : directories.openTree(scan.root); });
    if (!opened) {
      throw Error(std::string(snapshotScannerDomain), 1, "Cannot scan " + scan.root + ": " + errnoText(opened.error()));
    }
    const auto status = item ? posix.fstat(item->fd()) : posix.lstat(scan.root);
    if (status) device = status->device;
    // What lies below the root is opened by him.
    if (user.uid != 0 && !PeerAuthorization::assume(identities, user)) throw posixError("compare", scan.root, EPERM);
    SnapshotScanner scanner(
        dispatch, directories, [&log](const std::string& text) { log.info(text); },
        [&log](const std::string& text) { log.warn(text); }, memory);
    tree = scanner.scan(scan, **opened);
  }

  Semaphore ended;
  const PeerUser user;
  std::shared_ptr<const PeerItem> item;
  std::shared_ptr<Place> place;
  std::atomic<std::uint64_t> beats{0};
  std::atomic<bool> isCancelled{false};
  std::atomic<std::uint64_t> entries{0};
  const ScanRequest scan;

  std::optional<SnapshotIndex::ShardedEntries> tree;
  std::optional<std::uint64_t> device;
  std::optional<Error> failure;
};

LocalComparisons::LocalComparisons(Dispatch& dispatch, DirectoryReader& directories, Posix& posix,
                                   ThreadIdentity& identities, HelperLog& log, MemoryReturn* memory)
    : dispatch_(dispatch), directories_(directories), posix_(posix), identities_(identities), log_(log),
      memory_(memory), treeMemory_(std::make_shared<TreeMemory>(directories.memorySize() / 8)),
      places_(std::make_shared<Places>(dispatch)) {}
LocalComparisons::~LocalComparisons() = default;

Comparison LocalComparisons::compare(const Request& request) {
  for (const Side* side : {&request.a, &request.b}) {
    if (request.user.uid == 0 || side->item) continue;
    throw Error(std::string(snapshotScannerDomain), 1, "Cannot scan " + side->path + ": " + errnoText(ENOENT));
  }
  const auto place = std::make_shared<Place>(places_, request);
  const auto a = begin(request, request.a, place);
  const auto b = begin(request, request.b, place);
  finish(*a, *b, *place, request);
  finish(*b, *a, *place, request);
  const MemoryReturn::Held held(memory_, a->entries + b->entries);
  for (const auto& scan : {a, b}) {
    if (scan->failure) throw Error(*scan->failure);
  }
  const bool isOneDevice = a->device && a->device == b->device;
  const auto mode =
      isOneDevice ? SnapshotIndex::ComparisonMode::copyOnWriteTrees : SnapshotIndex::ComparisonMode::independentTrees;
  return {SnapshotIndex::diffSharded(dispatch_, *a->tree, *b->tree, mode), {}};
}

std::shared_ptr<LocalComparisons::Scan> LocalComparisons::begin(const Request& request, const Side& side,
                                                                std::shared_ptr<Place> place) {
  auto scan = std::make_shared<Scan>(dispatch_, request, side, std::move(place));
  const auto work = [scan, &dispatch = dispatch_, &directories = directories_, &posix = posix_,
                     &identities = identities_, &log = log_, memory = treeMemory_]() mutable {
    try {
      scan->read(dispatch, directories, posix, identities, log, memory);
    } catch (const std::exception& exception) {
      scan->failure = asError(exception);
    }
    scan->item.reset();
    scan->place.reset();
    scan->ended.signal();
  };
  try {
    dispatch_.throwAwayThread("com.harrowfern.quillmark.helper.compare", work);
  } catch (const Error& failure) {
    scan->failure = failure;
    scan->place.reset();
    scan->ended.signal();
  }
  return scan;
}

// Waits for the reader as long as it gets on.
void LocalComparisons::finish(Scan& scan, Scan& other, Place& place, const Request& request) {
  std::uint64_t seen = scan.beats;
  MonotonicTime alive = dispatch_.clock().monotonic();
  while (!scan.ended.waitFor(pulse)) {
    const MonotonicTime now = dispatch_.clock().monotonic();
    if (request.isAbandoned && request.isAbandoned()) scan.isCancelled = other.isCancelled = true;
    if (std::exchange(seen, scan.beats.load()) != seen) alive = now;
    if (now - alive < patience) continue;
    scan.isCancelled = other.isCancelled = true;
    place.markStuck(scan.scan.root);
    throw PeerAuthorization::unresponsive(action, scan.scan.root);
  }
  if (scan.failure) other.isCancelled = true;
}

}  // namespace quillmark
