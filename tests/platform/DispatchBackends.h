// The two backends as the suites of dispatch, locks and clocks see them.
#pragma once

#include "platform/contract/DispatchBackend.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/sim/Simulation.h"

namespace quillmark::contract {

class LinuxBackend final : public DispatchBackend {
 public:
  [[nodiscard]] Dispatch& dispatch() override { return dispatch_; }
  void run(FunctionRef<void()> body) override { body(); }

 private:
  os::LinuxClock clock_;
  os::LinuxDispatch dispatch_{clock_};
};

class SimulatedBackend final : public DispatchBackend {
 public:
  explicit SimulatedBackend(std::uint64_t seed) : simulation_({.seed = seed, .timeZone = "Asia/Kathmandu"}) {}
  [[nodiscard]] Dispatch& dispatch() override { return life_.dispatch(); }
  void run(FunctionRef<void()> body) override { simulation_.run(life_, body); }

 private:
  sim::Simulation simulation_;
  sim::Life& life_ = simulation_.startLife("suite");
};

inline std::vector<NamedBackend> backends() {
  std::vector<NamedBackend> all = {{"Linux", [] { return std::make_unique<LinuxBackend>(); }}};
#if !defined(__SANITIZE_THREAD__)  // it can't follow fibers
  for (std::uint64_t seed = 1; seed <= 4; ++seed) {
    all.push_back({"Seed" + std::to_string(seed), [seed] { return std::make_unique<SimulatedBackend>(seed); }});
  }
#endif
  return all;
}

inline std::string backendName(const testing::TestParamInfo<NamedBackend>& info) { return info.param.name; }

}  // namespace quillmark::contract
