// The transport against the bare facility: a server that reads a unix socket on one thread and writes back what it got.
//
// Goal: one no-op call within 3 times the bare round trip; pipelined at least half of the bare rate. The last benchmark
// runs both in turns and prints the two ratios.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/Transport.h"
#include "platform/linux/TransportSocket.h"

namespace quillmark {
namespace {

constexpr std::size_t lineBytes = 100;
constexpr std::size_t linesInFlight = 1000;

// Writes back whatever comes, in pieces as they come.
class BareEcho final {
 public:
  BareEcho() {
    int ends[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) std::abort();
    client_.reset(ends[0]);
    server_.reset(ends[1]);
    if (::pthread_create(&thread_, nullptr, &BareEcho::serve, this) != 0) std::abort();
  }
  ~BareEcho() {
    ::shutdown(client_.get(), SHUT_RDWR);
    ::pthread_join(thread_, nullptr);
  }
  [[nodiscard]] int client() const { return client_.get(); }

 private:
  static void* serve(void* self) {
    const int fd = static_cast<BareEcho*>(self)->server_.get();
    static char buffer[64 * 1024];
    for (;;) {
      const ssize_t count = ::read(fd, buffer, sizeof buffer);
      if (count <= 0) return nullptr;
      for (ssize_t sent = 0; sent < count;) {
        const ssize_t now = ::send(fd, buffer + sent, static_cast<std::size_t>(count - sent), MSG_NOSIGNAL);
        if (now <= 0) return nullptr;
        sent += now;
      }
    }
  }
  UniqueFd client_, server_;
  pthread_t thread_;
};

class TransportEcho final {
 public:
  TransportEcho() {
    if (!::mkdtemp(directory_.data())) std::abort();
    transport_.emplace(dispatch_, os::LinuxTransportOptions{.path = directory_ + "/run/helper.sock"});
    transport_->resume([](const std::shared_ptr<TransportConnection>& connection) {
      connection->start({.received = [connection](std::string line) { connection->send(std::move(line)); },
                         .closed = [](CloseReason) {}});
      return true;
    });
    client_ = std::move(*os::connectTo(directory_ + "/run/helper.sock"));
    ::fcntl(client_.get(), F_SETFL, 0);
  }
  ~TransportEcho() {
    transport_.reset();
    std::filesystem::remove_all(directory_);
  }
  [[nodiscard]] int client() const { return client_.get(); }

 private:
  std::string directory_ = "/tmp/quillmark-bench-XXXXXX";
  os::LinuxClock clock_;
  os::LinuxDispatch dispatch_{clock_};
  std::optional<os::LinuxTransport> transport_;
  UniqueFd client_;
};

void roundTrip(int fd) {
  char line[lineBytes];
  std::fill(line, line + lineBytes - 1, 'x');
  line[lineBytes - 1] = '\n';
  if (::send(fd, line, lineBytes, 0) != static_cast<ssize_t>(lineBytes)) std::abort();
  for (std::size_t got = 0; got < lineBytes;) {
    const ssize_t count = ::recv(fd, line, sizeof line, 0);
    if (count <= 0) std::abort();
    got += static_cast<std::size_t>(count);
  }
}

// Sends lines one by one, as a client makes its calls, reading answers when they are there, until all came back.
void pipeline(int fd, std::size_t lines) {
  std::string line(lineBytes, 'x');
  line.back() = '\n';
  std::vector<char> buffer(64 * 1024);
  std::size_t sent = 0;
  std::size_t received = 0;
  while (received < lines * lineBytes) {
    const std::size_t answered = received / lineBytes;
    while (sent < lines && sent - answered < linesInFlight) {
      if (::send(fd, line.data(), line.size(), MSG_DONTWAIT) != static_cast<ssize_t>(line.size())) break;
      ++sent;
    }
    const ssize_t count = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (count <= 0) std::abort();
    received += static_cast<std::size_t>(count);
  }
}

template <class Echo>
void BM_RoundTrip(benchmark::State& state) {
  const Echo echo;
  for (auto _ : state) roundTrip(echo.client());
}
BENCHMARK(BM_RoundTrip<BareEcho>)->UseRealTime();
BENCHMARK(BM_RoundTrip<TransportEcho>)->UseRealTime();

template <class Echo>
void BM_Pipelined(benchmark::State& state) {
  const Echo echo;
  for (auto _ : state) pipeline(echo.client(), 10'000);
  state.SetItemsProcessed(state.iterations() * 10'000);
}
BENCHMARK(BM_Pipelined<BareEcho>)->UseRealTime();
BENCHMARK(BM_Pipelined<TransportEcho>)->UseRealTime();

template <class Body>
double seconds(os::LinuxClock& clock, Body body) {
  const MonotonicTime from = clock.monotonic();
  body();
  return std::chrono::duration<double>(clock.monotonic() - from).count();
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

// Ratios above 1: the transport takes so many times what the bare echo takes.
void BM_TransportAgainstBare(benchmark::State& state) {
  os::LinuxClock clock;
  const BareEcho bare;
  const TransportEcho transport;
  std::vector<double> roundTrips;
  std::vector<double> pipelined;
  const auto trips = [&](int fd) {
    return seconds(clock, [&] {
      for (int i = 0; i < 1000; ++i) roundTrip(fd);
    });
  };
  const auto calls = [&](int fd) { return seconds(clock, [&] { pipeline(fd, 20'000); }); };
  for (auto _ : state) {
    roundTrips.push_back(trips(transport.client()) / trips(bare.client()));
    pipelined.push_back(calls(transport.client()) / calls(bare.client()));
  }
  state.counters["round_trip_ratio"] = median(roundTrips);
  state.counters["pipelined_ratio"] = median(pipelined);
}
BENCHMARK(BM_TransportAgainstBare)->Iterations(15)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillmark
