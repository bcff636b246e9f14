// Echo: lines over a unix socket with nothing around them, and the two ways of asking that benchmarks compare.
// Threads: one thread at a time for each descriptor.
#pragma once

#include <benchmark/benchmark.h>
#include <pthread.h>

#include <cstddef>
#include <string>

#include "base/UniqueFd.h"

namespace quillmark {

// One thread that writes back whatever comes, in pieces as they come.
class BareEcho final {
 public:
  BareEcho();
  ~BareEcho();
  BareEcho(const BareEcho&) = delete;
  BareEcho& operator=(const BareEcho&) = delete;
  [[nodiscard]] int client() const { return client_.get(); }

 private:
  static void* serve(void* self);

  UniqueFd client_, server_;
  pthread_t thread_{};
};

// Sends the line (with its newline) and waits for one line back.
void roundTrip(int fd, const std::string& line);
// Sends the line `count` times, one by one, as a client makes its calls, reading answers when they are there, until as
// many lines came back.
void pipeline(int fd, const std::string& line, std::size_t count);

// In turns, a round: 1,000 round trips and 20,000 pipelined lines on each. Sets the counters round_trip_ratio and
// pipelined_ratio, the medians of how many times the bare echo's time the other takes.
void compareWithBare(benchmark::State& state, int bare, int other, const std::string& line);

}  // namespace quillmark
