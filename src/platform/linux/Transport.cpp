#include "platform/linux/Transport.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>

#include "base/Error.h"
#include "platform/linux/TransportConnection.h"
#include "platform/linux/TransportSocket.h"

namespace quillmark::os {
namespace {

using namespace std::chrono_literals;

constexpr std::uint64_t wakeKey = 0;
constexpr std::uint64_t listenKey = 1;
constexpr std::uint64_t firstConnectionKey = 2;
constexpr std::size_t readBytes = 64 * 1024;
constexpr int acceptsPerTurn = 16;
// A socket, three holds on the peer's process, and one for what serves it.
constexpr rlim_t descriptorsPerConnection = 5;
// How long nothing is accepted after the platform had no room for a connection.
constexpr auto acceptPause = 100ms;

UniqueFd spareDescriptor() { return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

std::size_t maxConnections() {
  rlimit limit;
  if (::getrlimit(RLIMIT_NOFILE, &limit) < 0) return 16;
  return std::max<std::size_t>(limit.rlim_cur / descriptorsPerConnection, 1);
}

bool set(int epoll, int operation, int fd, std::uint64_t key, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.u64 = key;
  return ::epoll_ctl(epoll, operation, fd, &event) == 0;
}

void sooner(std::optional<MonotonicTime>& deadline, std::optional<MonotonicTime> other) {
  if (other && (!deadline || *other < *deadline)) deadline = other;
}

// The connections of each user, counted until the last who works for one has let go of its place.
// Threads: thread-safe.
class UserPlaces final : public std::enable_shared_from_this<UserPlaces> {
 public:
  UserPlaces(Threads& threads, unsigned most) : most_(most), taken_(threads) {}

  // Null when the user has all that one may have.
  [[nodiscard]] std::shared_ptr<const void> take(std::uint32_t user) {
    const bool free = taken_.with([&](auto& taken) { return taken[user] < most_ && ++taken[user] > 0; });
    if (!free) return nullptr;
    return {this, [self = shared_from_this(), user](const void*) { self->giveBack(user); }};
  }

 private:
  void giveBack(std::uint32_t user) {
    taken_.with([&](auto& taken) {
      if (--taken[user] == 0) taken.erase(user);
    });
  }

  const unsigned most_;
  Guarded<std::map<std::uint32_t, unsigned>> taken_;
};

}  // namespace

// All its members are confined to the loop's thread, but for what stop() uses.
class LinuxTransport::Loop final {
 public:
  Loop(Dispatch& dispatch, TransportLimits limits, UniqueFd listening, Accept accept)
      : dispatch_(dispatch), limits_(limits), listening_(std::move(listening)),
        accept_(std::make_shared<Accept>(std::move(accept))), ended_(dispatch), spare_(spareDescriptor()) {
    auto poll = std::make_shared<TransportPoll>();
    poll->epoll.reset(::epoll_create1(EPOLL_CLOEXEC));
    poll->wake.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!poll->epoll.valid() || !poll->wake.valid() ||
        !set(poll->epoll.get(), EPOLL_CTL_ADD, poll->wake.get(), wakeKey, EPOLLIN) ||
        !set(poll->epoll.get(), EPOLL_CTL_ADD, listening_.get(), listenKey, EPOLLIN) ||
        !askForSenders(listening_.get())) {
      throw posixError("epoll", "transport", errno);
    }
    poll_ = std::move(poll);
  }

  void run() {
    while (step()) {
    }
    for (auto& [key, connection] : connections_) {
      connection->end(CloseReason::closedByUs);
      connection->dispose();
    }
    connections_.clear();
    listening_.reset();
    ended_.signal();
  }

  void stop() {
    stopping_ = true;
    poll_->wakeLoop();
    ended_.wait();
  }

 private:
  [[nodiscard]] bool step() {
    std::array<epoll_event, 64> events;
    const std::optional<MonotonicTime> deadline = nextDeadline();
    const int count = ::epoll_wait(poll_->epoll.get(), events.data(), events.size(), millisecondsTo(deadline));
    if (stopping_) return false;
    bool look = deadline && *deadline <= dispatch_.clock().monotonic();
    for (int i = 0; i < count; ++i) {
      const std::uint64_t key = events[i].data.u64;
      if (key == wakeKey) {
        look = true;
      } else if (key == listenKey) {
        acceptSome();
      } else {
        handle(key, events[i].events);
      }
    }
    if (look) lookAround();
    return true;
  }

  [[nodiscard]] int millisecondsTo(std::optional<MonotonicTime> deadline) const {
    if (!deadline) return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - dispatch_.clock().monotonic()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, 3'600'000));
  }

  [[nodiscard]] std::optional<MonotonicTime> nextDeadline() const {
    std::optional<MonotonicTime> next = stallDeadline_;
    sooner(next, acceptAgainAt_);
    return next;
  }

  void handle(std::uint64_t key, std::uint32_t events) {
    const auto found = connections_.find(key);
    if (found == connections_.end()) return;
    if (!found->second->handle(events, buffer_)) return dispose(found);
    // A write of ours that didn't end may be the first to wait.
    if ((events & EPOLLOUT) != 0) sooner(stallDeadline_, found->second->stallDeadline());
  }

  // After a wake-up or a deadline: clears up what is over, ends what stalled, finds the next deadline.
  void lookAround() {
    std::uint64_t wakeUps;
    static_cast<void>(::read(poll_->wake.get(), &wakeUps, sizeof wakeUps) > 0);
    const MonotonicTime now = dispatch_.clock().monotonic();
    if (acceptAgainAt_ && *acceptAgainAt_ <= now) acceptAgain();
    stallDeadline_.reset();
    for (auto next = connections_.begin(); next != connections_.end();) {
      const auto current = next++;
      const std::optional<MonotonicTime> deadline = current->second->stallDeadline();
      if (deadline && *deadline <= now) {
        current->second->end(CloseReason::stalled);
      } else {
        sooner(stallDeadline_, deadline);
      }
      if (current->second->isOver()) dispose(current);
    }
  }

  using Connections = std::map<std::uint64_t, std::shared_ptr<LinuxConnection>>;

  void dispose(Connections::iterator place) {
    place->second->dispose();
    connections_.erase(place);
  }

  void acceptSome() {
    for (int i = 0; i < acceptsPerTurn; ++i) {
      UniqueFd socket(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (socket.valid()) {
        admit(std::move(socket));
      } else if (errno == EMFILE && spare_.valid()) {
        refuseOne();
      } else if (errno != ECONNABORTED && errno != EINTR) {
        if (errno != EAGAIN) pauseAccepting();
        return;
      }
    }
  }

  // Without this the peer would wait, and the loop turn, until a descriptor becomes free.
  void refuseOne() {
    spare_.reset();
    UniqueFd(::accept4(listening_.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
    spare_ = spareDescriptor();
  }

  void pauseAccepting() {
    if (!spare_.valid()) spare_ = spareDescriptor();
    static_cast<void>(set(poll_->epoll.get(), EPOLL_CTL_MOD, listening_.get(), listenKey, 0));
    acceptAgainAt_ = dispatch_.clock().monotonic() + acceptPause;
  }

  void acceptAgain() {
    if (!spare_.valid()) spare_ = spareDescriptor();
    acceptAgainAt_.reset();
    static_cast<void>(set(poll_->epoll.get(), EPOLL_CTL_MOD, listening_.get(), listenKey, EPOLLIN));
  }

  void admit(UniqueFd socket) {
    SysResult<PeerCredentials> peer = peerCredentials(socket.get());
    if (!peer || connections_.size() >= maxConnections()) return;
    std::shared_ptr<const void> userPlace = places_->take(peer->uid);
    if (!userPlace) return;
    auto connection = std::make_shared<LinuxConnection>(
        dispatch_, poll_, limits_,
        LinuxConnection::Place{
            .socket = std::move(socket), .key = nextKey_, .peer = std::move(*peer), .userPlace = std::move(userPlace)});
    if (!connection->watch()) return;
    connections_.emplace(nextKey_++, connection);
    connection->queue().async([accept = accept_, connection] {
      if (!(*accept)(connection)) connection->end(CloseReason::closedByUs);
    });
  }

  Dispatch& dispatch_;
  const TransportLimits limits_;
  UniqueFd listening_;
  const std::shared_ptr<Accept> accept_;
  std::shared_ptr<const TransportPoll> poll_;
  std::atomic<bool> stopping_ = false;
  Semaphore ended_;
  UniqueFd spare_;
  Connections connections_;
  const std::shared_ptr<UserPlaces> places_ = std::make_shared<UserPlaces>(dispatch_, limits_.maxConnectionsPerUser);
  std::uint64_t nextKey_ = firstConnectionKey;
  std::optional<MonotonicTime> stallDeadline_;
  std::optional<MonotonicTime> acceptAgainAt_;
  std::array<char, readBytes> buffer_;
};

LinuxTransport::LinuxTransport(Dispatch& dispatch, LinuxTransportOptions options)
    : dispatch_(dispatch), options_(std::move(options)) {}

LinuxTransport::~LinuxTransport() {
  if (loop_) loop_->stop();
}

void LinuxTransport::resume(Accept accept) {
  UniqueFd listening = std::move(options_.listening);
  if (!listening.valid()) listening = makeListeningSocket(options_.path);
  loop_ = std::make_shared<Loop>(dispatch_, options_.limits, std::move(listening), std::move(accept));
  dispatch_.throwAwayThread("com.harrowfern.quillmark.helper.transport", [loop = loop_] { loop->run(); });
}

}  // namespace quillmark::os
