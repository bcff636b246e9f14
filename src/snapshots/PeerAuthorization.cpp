#include "snapshots/PeerAuthorization.h"

#include <fmt/format.h>

#include <cerrno>

#include "base/HelperLog.h"
#include "platform/ThreadIdentity.h"
#include "snapshots/PathTrail.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

constexpr int globalLimit = 64;
constexpr int volumeLimit = 4;
constexpr std::chrono::seconds slotWait{2};
constexpr Seconds fenceLength{300.0};
constexpr double slowCheckMs = 1000.0;
constexpr std::size_t slowestKept = 64;
constexpr int mostTurns = 100;  // of one look-up from a volume or a link to the next
constexpr std::uint32_t nobodysGroup = 65534;

double milliseconds(std::chrono::nanoseconds span) { return std::chrono::duration<double, std::milli>(span).count(); }

long long whole(double number) { return static_cast<long long>(number); }

// The path without its last component, slashes at the end not counting; empty when there is none.
std::string parentOf(const std::string& path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == std::string::npos) return path.empty() ? "" : "/";
  const std::size_t slash = path.rfind('/', end);
  if (slash == std::string::npos) return "";
  const std::size_t last = path.find_last_not_of('/', slash);
  return last == std::string::npos ? "/" : path.substr(0, last + 1);
}

Error refusal(std::string text) {
  return QuillmarkError::make(QuillmarkErrorCode::insufficientPrivileges, std::move(text));
}

Error shortUnresponsive(std::string_view verb, const std::string& path) {
  return refusal(
      fmt::format("The disk holding {} stopped responding, so Quillmark could not confirm your permission to "
                  "{} there.",
                  path, verb));
}

}  // namespace

// Written by the thread before it signals, read by the caller after that, never once the caller's wait has timed out.
struct PeerAuthorization::Box {
  explicit Box(Threads& threads) : answered(threads) {}
  void lookUp(ThreadIdentity& identities, Clock& clock, Asked asked, const PathTrail& trail, const std::string& volume,
              const PeerUser& user);

  Semaphore answered;
  Verdict verdict = Verdict::denied;
  double climbMs = 0;
  double accessMs = 0;
  PathTrail::End found;
};

// Owns all it touches.
struct PeerAuthorization::Question {
  UniqueFunction<void(Box&)> put;            // by the thread, which may hang in it
  UniqueFunction<bool()> prepare = nullptr;  // by the caller, once there is a slot; false: it can't be asked
};

// The box once the thread has answered, else null.
struct PeerAuthorization::Outcome {
  Verdict verdict = Verdict::denied;
  std::shared_ptr<Box> box = nullptr;
};

// Slots and fences of all volumes, by their keys.
class PeerAuthorization::Throttle final {
 public:
  struct Lifted {
    bool wasFenced = false;
    long long seconds = 0;
    int refusals = 0;
  };

  explicit Throttle(Threads& threads) : clock_(threads.clock()), mutex_(threads), freed_(threads) {}

  // Counts a refusal if it is.
  [[nodiscard]] bool refusesFenced(const std::string& key) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    const auto fence = unresponsiveUntil_.find(key);
    if (fence == unresponsiveUntil_.end()) return false;
    if (fence->second <= clock_.now()) {
      unresponsiveUntil_.erase(fence);
      return false;
    }
    ++refusalsDuringCooldown_[key];
    return true;
  }

  // False, and a refusal counted, when none came free in time.
  [[nodiscard]] bool acquire(const std::string& key) EXCLUDES(mutex_) {
    const MonotonicTime deadline = after(clock_.monotonic(), slotWait);
    MutexLock lock(mutex_);
    for (;;) {
      const auto inFlight = perVolumeInFlight_.find(key);
      if ((inFlight == perVolumeInFlight_.end() || inFlight->second < volumeLimit) && globalInFlight_ < globalLimit) {
        ++perVolumeInFlight_[key];
        ++globalInFlight_;
        return true;
      }
      if (!freed_.waitUntil(mutex_, deadline) || clock_.monotonic() >= deadline) {
        ++refusalsDuringCooldown_[key];
        return false;
      }
    }
  }

  void release(const std::string& key) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    if (globalInFlight_ > 0) --globalInFlight_;
    const auto inFlight = perVolumeInFlight_.find(key);
    if (inFlight != perVolumeInFlight_.end() && --inFlight->second <= 0) perVolumeInFlight_.erase(inFlight);
    freed_.notifyAll();
  }

  // True when the volume wasn't fenced before.
  [[nodiscard]] bool fence(const std::string& key) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    const bool isNew = !unresponsiveUntil_.contains(key);
    const Date now = clock_.now();
    std::erase_if(unresponsiveUntil_, [&](const auto& entry) { return entry.second <= now; });
    unresponsiveUntil_[key] = now + fenceLength;
    if (isNew) unresponsiveSince_[key] = now;
    std::erase_if(unresponsiveSince_,
                  [&](const auto& entry) REQUIRES(mutex_) { return !unresponsiveUntil_.contains(entry.first); });
    std::erase_if(refusalsDuringCooldown_,
                  [&](const auto& entry) REQUIRES(mutex_) { return !unresponsiveUntil_.contains(entry.first); });
    if (slowestMs_.size() > slowestKept) slowestMs_.clear();
    return isNew;
  }

  [[nodiscard]] Lifted lift(const std::string& key) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return liftLocked(key);
  }

  // A check came back: true in the second when it was the slowest yet and is to be told.
  [[nodiscard]] std::pair<Lifted, bool> answered(const std::string& key, double elapsedMs) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    const Lifted lifted = liftLocked(key);
    if (elapsedMs < slowCheckMs) return {lifted, false};
    const auto [slowest, isFirst] = slowestMs_.try_emplace(key, elapsedMs);
    const bool isSlowest = isFirst || elapsedMs > slowest->second;
    if (isSlowest) slowest->second = elapsedMs;
    return {lifted, isSlowest};
  }

 private:
  Lifted liftLocked(const std::string& key) REQUIRES(mutex_) {
    Lifted lifted;
    lifted.wasFenced = unresponsiveUntil_.erase(key) > 0;
    if (const auto since = unresponsiveSince_.extract(key)) {
      lifted.seconds = whole((clock_.now() - since.mapped()).count());
    }
    if (const auto refused = refusalsDuringCooldown_.extract(key)) lifted.refusals = refused.mapped();
    return lifted;
  }

  Clock& clock_;
  Mutex mutex_;
  ConditionVariable freed_;
  int globalInFlight_ GUARDED_BY(mutex_) = 0;
  std::map<std::string, int> perVolumeInFlight_ GUARDED_BY(mutex_);
  std::map<std::string, Date> unresponsiveUntil_ GUARDED_BY(mutex_);
  std::map<std::string, int> refusalsDuringCooldown_ GUARDED_BY(mutex_);
  std::map<std::string, Date> unresponsiveSince_ GUARDED_BY(mutex_);
  std::map<std::string, double> slowestMs_ GUARDED_BY(mutex_);
};

PeerAuthorization::PeerAuthorization(Dispatch& dispatch, ThreadIdentity& identities, HelperLog& log)
    : dispatch_(dispatch), identities_(identities), log_(log), throttle_(std::make_shared<Throttle>(dispatch)) {}
PeerAuthorization::~PeerAuthorization() = default;

PeerItem::~PeerItem() { identities_.close(fd_); }

// A user whom the databases don't know, or can't tell of just now, has no group but those of his connection: with the
// item's own he would be given its group's rights.
bool PeerAuthorization::assume(ThreadIdentity& identities, const PeerUser& user) {
  const std::optional<UserIdentity> known = identities.userIdentity(user.uid);
  UserIdentity identity{user.uid, known ? known->gid : nobodysGroup, {}};
  if (user.groups) {
    identity.groups = *user.groups;
  } else if (known) {
    identity.groups = known->groups;
  }
  return identities.assume(identity).ok();
}

void PeerAuthorization::Box::lookUp(ThreadIdentity& identities, Clock& clock, Asked asked, const PathTrail& trail,
                                    const std::string& volume, const PeerUser& user) {
  const MonotonicTime begun = clock.monotonic();
  if (!assume(identities, user)) return;
  found = trail.walk(identities, volume);
  const MonotonicTime asking = clock.monotonic();
  climbMs = milliseconds(asking - begun);
  if (!found.item) return;
  unsigned mode = mayRead;
  if (found.isMissing) mode = mayRead | mayExecute;  // could the user look into where it was?
  if (asked == Asked::mayCreate) mode = mayWrite | mayExecute;
  verdict = identities.permits(found.item->fd(), mode) ? Verdict::allowed : Verdict::denied;
  accessMs = milliseconds(clock.monotonic() - asking);
}

Verdict PeerAuthorization::check(Asked asked, const std::string& path, const PeerUser& user,
                                 std::chrono::seconds timeout) {
  return lookUp(asked, path, user, timeout).verdict;
}

PeerAuthorization::Found PeerAuthorization::find(const std::string& path, const PeerUser& user,
                                                 std::chrono::seconds timeout) {
  return lookUp(Asked::mayRead, path, user, timeout);
}

PeerAuthorization::Found PeerAuthorization::lookUp(Asked asked, const std::string& path, const PeerUser& user,
                                                   std::chrono::seconds timeout) {
  if (user.uid == 0) return {Verdict::allowed, nullptr};
  if (!path.starts_with('/')) return {};
  PathTrail trail(asked == Asked::mayCreate ? parentOf(path) : path);
  std::shared_ptr<const PeerItem> link;
  for (int turn = 0; turn < mostTurns; ++turn) {
    const std::string key = identities_.volumeKey(trail.text());
    if (throttle_->refusesFenced(key)) return {Verdict::unresponsive, nullptr};
    const auto put = [asked, trail, key, user, &identities = identities_, &clock = dispatch_.clock()](Box& box) {
      box.lookUp(identities, clock, asked, trail, key, user);
    };
    const Outcome outcome = ask(key, timeout, {put});
    if (!outcome.box) return {outcome.verdict, nullptr};
    PathTrail::End& found = outcome.box->found;
    if (found.link) link = std::move(found.link);
    if (!found.next) {
      if (outcome.verdict != Verdict::allowed || found.isMissing) return {outcome.verdict, nullptr};
      return {Verdict::allowed, link ? std::move(link) : std::move(found.item)};
    }
    trail = std::move(*found.next);
  }
  return {};
}

PeerAuthorization::Outcome PeerAuthorization::ask(const std::string& key, std::chrono::seconds timeout,
                                                  Question question) {
  if (!throttle_->acquire(key)) {
    log_.warn(fmt::format(
        "permission checks on {} are saturated (4 in flight and none freed within 2s); refusing the request", key));
    return {Verdict::unresponsive};
  }
  if (question.prepare && !question.prepare()) {
    throttle_->release(key);
    return {Verdict::denied};
  }
  const auto box = std::make_shared<Box>(dispatch_);
  const MonotonicTime begun = dispatch_.clock().monotonic();
  try {
    dispatch_.throwAwayThread("com.harrowfern.quillmark.helper.permission",
                              [box, key, throttle = throttle_, question = std::move(question)]() mutable {
                                question.put(*box);
                                throttle->release(key);
                                box->answered.signal();
                              });
  } catch (const Error&) {
    throttle_->release(key);
    return {Verdict::denied};
  }
  if (!box->answered.waitFor(timeout)) {
    if (throttle_->fence(key)) {
      log_.warn(
          fmt::format("permission check on {} did not answer within {}s; treating that volume as unresponsive for "
                      "300s. Operations there will be refused until it answers or is remounted.",
                      key, timeout.count()));
    }
    return {Verdict::unresponsive};
  }
  const double elapsedMs = milliseconds(dispatch_.clock().monotonic() - begun);
  const auto [lifted, isSlowest] = throttle_->answered(key, elapsedMs);
  if (lifted.wasFenced) {
    log_.info(
        fmt::format("permission checks on {} un-fenced after {}s (a check completed); {} request(s) were refused "
                    "while it was unresponsive",
                    key, lifted.seconds, lifted.refusals));
  }
  if (isSlowest) {
    log_.warn(
        fmt::format("slow permission check on {}: {}ms total (ancestor lookup {}ms, access check {}ms). Healthy "
                    "volumes answer in well under a millisecond.",
                    key, whole(elapsedMs), whole(box->climbMs), whole(box->accessMs)));
  }
  return {box->verdict, box};
}

void PeerAuthorization::authorize(Asked asked, const std::string& path, const PeerUser& user, std::string_view verb,
                                  std::chrono::seconds timeout) {
  switch (check(asked, path, user, timeout)) {
    case Verdict::allowed: return;
    case Verdict::denied: throw denied(verb, path);
    case Verdict::unresponsive: throw unresponsive(verb, path);
  }
}

void PeerAuthorization::authorizeOpenDirectory(int directory, const std::string& path, const PeerUser& user,
                                               std::string_view verb, std::chrono::seconds timeout) {
  if (user.uid == 0) return;
  const std::string key = identities_.volumeKey(path);
  if (throttle_->refusesFenced(key)) throw shortUnresponsive(verb, path);
  // The thread's own, so that one that hangs isn't left with a number that the caller has closed and opened anew.
  const auto own = std::make_shared<std::shared_ptr<const PeerItem>>();
  const auto put = [own, user, &identities = identities_, &clock = dispatch_.clock()](Box& box) {
    if (assume(identities, user)) {
      const MonotonicTime asking = clock.monotonic();
      box.verdict = identities.permits((*own)->fd(), mayWrite | mayExecute) ? Verdict::allowed : Verdict::denied;
      box.accessMs = milliseconds(clock.monotonic() - asking);
    }
    own->reset();
  };
  const auto prepare = [own, directory, &identities = identities_] {
    const SysResult<int> second = identities.duplicate(directory);
    if (second) *own = std::make_shared<const PeerItem>(identities, *second);
    return second.ok();
  };
  const Verdict verdict = ask(key, timeout, {.put = put, .prepare = prepare}).verdict;
  if (verdict == Verdict::unresponsive) throw shortUnresponsive(verb, path);
  if (verdict == Verdict::denied) {
    throw refusal(
        fmt::format("You do not have permission to {} at {}. The location changed after the operation was "
                    "authorized; nothing was written.",
                    verb, path));
  }
}

void PeerAuthorization::volumeRemounted(const std::string& mountPath) {
  const std::string key = identities_.volumeKey(mountPath);
  const Throttle::Lifted lifted = throttle_->lift(key);
  if (!lifted.wasFenced) return;
  log_.info(
      fmt::format("permission checks on {} un-fenced after {}s (volume remounted); {} request(s) were refused while "
                  "it was unresponsive",
                  key, lifted.seconds, lifted.refusals));
}

Error PeerAuthorization::denied(std::string_view verb, const std::string& path) {
  return refusal(fmt::format("You do not have permission to {} at {}.", verb, path));
}

Error PeerAuthorization::unresponsive(std::string_view verb, const std::string& path) {
  return refusal(
      fmt::format("The disk holding {} stopped responding, so Quillmark could not confirm your permission to "
                  "{} there. This is usually a network volume that has gone away. Reconnect it, or eject it, "
                  "and try again.",
                  path, verb));
}

}  // namespace quillmark
