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

// The seed, and with it the interleaving, is the backend's parameter.
template <std::uint64_t seed>
class SimulatedBackend final : public DispatchBackend {
 public:
  [[nodiscard]] Dispatch& dispatch() override { return life_.dispatch(); }
  void run(FunctionRef<void()> body) override { simulation_.run(life_, body); }

 private:
  sim::Simulation simulation_{{.seed = seed, .timeZone = "Asia/Kathmandu"}};
  sim::Life& life_ = simulation_.startLife("suite");
};

template <class Backend>
std::unique_ptr<DispatchBackend> makeBackend() {
  return std::make_unique<Backend>();
}

inline auto backends() {
  return testing::Values(NamedBackend{"Linux", makeBackend<LinuxBackend>}
#if !defined(__SANITIZE_THREAD__)  // it can't follow fibers
                         ,
                         NamedBackend{"Simulated1", makeBackend<SimulatedBackend<1>>},
                         NamedBackend{"Simulated2", makeBackend<SimulatedBackend<2>>},
                         NamedBackend{"Simulated3", makeBackend<SimulatedBackend<3>>}
#endif
  );
}

inline std::string backendName(const testing::TestParamInfo<NamedBackend>& info) {
  return info.param.name;
}

}  // namespace quillmark::contract
