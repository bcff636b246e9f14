#include "platform/sim/FaultSweep.h"

#include "base/Error.h"

namespace quillmark::sim {
namespace {

// More calls than any one operation makes: an operation that never comes to an end of them is a defect.
constexpr std::uint64_t mostCalls = 20'000;

class Sweep final {
 public:
  Sweep(const FaultSweepOptions& options, FunctionRef<void(SimPosix&)> prepare, FunctionRef<void(SimPosix&)> operation,
        FunctionRef<std::string(SimPosix&, const FaultRun&)> check)
      : options_(options), prepare_(prepare), operation_(operation), check_(check) {}

  void walk(FaultPlan plan) {
    plan.seed = options_.seed;
    for (plan.atCall = 1; plan.atCall <= mostCalls; ++plan.atCall) {
      if (!once(plan)) return;
    }
    complaints_.push_back("the operation never ran undisturbed: " + plan.describe());
  }
  [[nodiscard]] std::vector<std::string> complaints() && { return std::move(complaints_); }

 private:
  // False when the operation ended before the fault came.
  bool once(const FaultPlan& plan) {
    SimPosix posix;
    prepare_(posix);
    posix.syncEverything();
    posix.setPlan(plan);
    FaultRun run{.plan = plan};
    try {
      operation_(posix);
      run.completed = true;
    } catch (const Error&) {
    } catch (const SimulatedKill&) {
    }
    const bool fired = posix.faultFired();
    if (plan.fault == Fault::kill) {
      look(*posix.copyForSuccessor(), run);
      cutThePower(posix, run);
    } else {
      posix.setPlan({});
      look(posix, run);
    }
    return fired;
  }

  void cutThePower(SimPosix& posix, FaultRun run) {
    run.powerCut = true;
    for (unsigned i = 0; i < options_.powerCutsEach; ++i) {
      run.plan.seed = options_.seed + i;
      look(*posix.powerCut(run.plan.seed), run);
    }
  }

  void look(SimPosix& after, const FaultRun& run) {
    const std::string complaint = check_(after, run);
    if (!complaint.empty()) complaints_.push_back(run.describe() + ": " + complaint);
  }

  const FaultSweepOptions& options_;
  FunctionRef<void(SimPosix&)> prepare_;
  FunctionRef<void(SimPosix&)> operation_;
  FunctionRef<std::string(SimPosix&, const FaultRun&)> check_;
  std::vector<std::string> complaints_;
};

}  // namespace

std::string FaultRun::describe() const {
  return plan.describe() + (powerCut ? ", power cut" : "") + (completed ? ", completed" : "");
}

std::vector<std::string> forEachFault(const FaultSweepOptions& options, FunctionRef<void(SimPosix&)> prepare,
                                      FunctionRef<void(SimPosix&)> operation,
                                      FunctionRef<std::string(SimPosix&, const FaultRun&)> check) {
  Sweep sweep(options, prepare, operation, check);
  for (const int error : options.errors) sweep.walk({.fault = Fault::fail, .error = error});
  sweep.walk({.fault = Fault::shortWrite, .only = PosixCall::write});
  sweep.walk({.fault = Fault::kill});
  return std::move(sweep).complaints();
}

}  // namespace quillmark::sim
