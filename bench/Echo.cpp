#include "bench/Echo.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "platform/linux/Clock.h"

namespace quillmark {
namespace {

constexpr std::size_t linesInFlight = 200;  // below what the service lets one client leave unanswered

template <class Body>
double seconds(Clock& clock, Body body) {
  const MonotonicTime from = clock.monotonic();
  body();
  return std::chrono::duration<double>(clock.monotonic() - from).count();
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

}  // namespace

BareEcho::BareEcho() {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) < 0) std::abort();
  client_.reset(ends[0]);
  server_.reset(ends[1]);
  if (::pthread_create(&thread_, nullptr, &BareEcho::serve, this) != 0) std::abort();
}

BareEcho::~BareEcho() {
  ::shutdown(client_.get(), SHUT_RDWR);
  ::pthread_join(thread_, nullptr);
}

void* BareEcho::serve(void* self) {
  const int fd = static_cast<BareEcho*>(self)->server_.get();
  std::vector<char> buffer(std::size_t{64} * 1024);
  for (;;) {
    const ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count <= 0) return nullptr;
    for (ssize_t sent = 0; sent < count;) {
      const ssize_t now = ::send(fd, buffer.data() + sent, static_cast<std::size_t>(count - sent), MSG_NOSIGNAL);
      if (now <= 0) return nullptr;
      sent += now;
    }
  }
}

void roundTrip(int fd, const std::string& line) {
  if (::send(fd, line.data(), line.size(), 0) != static_cast<ssize_t>(line.size())) std::abort();
  char buffer[4096];
  ssize_t count = 0;
  do {
    count = ::recv(fd, buffer, sizeof buffer, 0);
    if (count <= 0) std::abort();
  } while (buffer[count - 1] != '\n');
}

void pipeline(int fd, const std::string& line, std::size_t lines) {
  std::vector<char> buffer(std::size_t{64} * 1024);
  std::size_t sent = 0, answered = 0;
  while (answered < lines) {
    while (sent < lines && sent - answered < linesInFlight) {
      if (::send(fd, line.data(), line.size(), MSG_DONTWAIT) != static_cast<ssize_t>(line.size())) break;
      ++sent;
    }
    const ssize_t count = ::recv(fd, buffer.data(), buffer.size(), 0);
    if (count <= 0) std::abort();
    answered += static_cast<std::size_t>(std::count(buffer.begin(), buffer.begin() + count, '\n'));
  }
}

void compareWithBare(benchmark::State& state, int bare, int other, const std::string& line) {
  os::LinuxClock clock;
  std::vector<double> roundTrips, pipelined;
  const auto trips = [&](int fd) {
    return seconds(clock, [&] {
      for (int i = 0; i < 1000; ++i) roundTrip(fd, line);
    });
  };
  const auto calls = [&](int fd) { return seconds(clock, [&] { pipeline(fd, line, 20'000); }); };
  for (auto _ : state) {
    roundTrips.push_back(trips(other) / trips(bare));
    pipelined.push_back(calls(other) / calls(bare));
  }
  state.counters["round_trip_ratio"] = median(roundTrips);
  state.counters["pipelined_ratio"] = median(pipelined);
}

}  // namespace quillmark
