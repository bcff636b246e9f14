// The transport against the bare facility: a server that reads a unix socket on one thread and writes back what it got.
//
// Goal: one no-op call within 3 times the bare round trip; pipelined at least half of the bare rate. The last benchmark
// runs both in turns and prints the two ratios.
#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "base/UniqueFd.h"
#include "bench/Echo.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/Transport.h"
#include "platform/linux/TransportSocket.h"

namespace quillmark {
namespace {

const std::string line = std::string(99, 'x') + "\n";

class TransportEcho final {
 public:
  TransportEcho() {
    if (!::mkdtemp(directory_.data())) std::abort();
    transport_.emplace(dispatch_, os::LinuxTransportOptions{.path = directory_ + "/run/helper.sock"});
    transport_->resume([](const std::shared_ptr<TransportConnection>& connection) {
      connection->start({.received = [connection](std::string text) { connection->send(std::move(text)); },
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

template <class Echo>
void BM_RoundTrip(benchmark::State& state) {
  const Echo echo;
  for (auto _ : state) roundTrip(echo.client(), line);
}
BENCHMARK(BM_RoundTrip<BareEcho>)->UseRealTime();
BENCHMARK(BM_RoundTrip<TransportEcho>)->UseRealTime();

template <class Echo>
void BM_Pipelined(benchmark::State& state) {
  const Echo echo;
  for (auto _ : state) pipeline(echo.client(), line, 10'000);
  state.SetItemsProcessed(state.iterations() * 10'000);
}
BENCHMARK(BM_Pipelined<BareEcho>)->UseRealTime();
BENCHMARK(BM_Pipelined<TransportEcho>)->UseRealTime();

void BM_TransportAgainstBare(benchmark::State& state) {
  const BareEcho bare;
  const TransportEcho transport;
  compareWithBare(state, bare.client(), transport.client(), line);
}
BENCHMARK(BM_TransportAgainstBare)->Iterations(15)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillmark
