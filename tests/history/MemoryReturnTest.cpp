// Memory that large jobs used goes back to the machine, once all is told.
#include <fmt/format.h>

#include "PipelineMachine.h"

namespace quillmark {
namespace {

TEST(MemoryReturn, ComesAWhileAfterTheLastOfLargeJobsAndNotAfterSmallOnes) {
  sim::Simulation simulation{{.seed = 3}};
  sim::Life& life = simulation.startLife("helper");
  sim::SimThisProcess process{1};
  MemoryReturn memory(life.dispatch(), process);
  memory.released(MemoryReturn::worthwhile - 1);
  simulation.runFor(60s);
  EXPECT_EQ(process.timesMemoryWasGivenBack(), 0);
  memory.released(1);
  simulation.runFor(4s);
  memory.released(MemoryReturn::worthwhile);
  simulation.runFor(4s);
  EXPECT_EQ(process.timesMemoryWasGivenBack(), 0) << "another one has just ended";
  simulation.runFor(1s);
  EXPECT_EQ(process.timesMemoryWasGivenBack(), 1);
  memory.released(MemoryReturn::worthwhile - 1);
  simulation.runFor(60s);
  EXPECT_EQ(process.timesMemoryWasGivenBack(), 1) << "it counts from there on";
  { const MemoryReturn::Held held(&memory, 1); }
  { const MemoryReturn::Held unheard(nullptr, MemoryReturn::worthwhile); }
  simulation.runFor(5s);
  EXPECT_EQ(process.timesMemoryWasGivenBack(), 2);
}

// Goal:   every job that holds whole trees counts.
// Method: jobs that hold a quarter of what is worth it, each kind once, and nothing comes before the last of them.
TEST(MemoryReturn, CountsBaselinesDeltasAndBothTreesOfAComparison) {
  PipelineMachine machine;
  constexpr int quarter = static_cast<int>(MemoryReturn::worthwhile) / 4;
  machine.volumes.change(machine.uuid, [](sim::SimVolume& volume) {
    for (int i = 0; i < quarter; ++i) volume.tree.write(fmt::format("/{}/{}", i % 10, i), 1);
  });
  const auto given = [&] {
    machine.simulation.runFor(10s);
    return machine.here().sim.process().timesMemoryWasGivenBack();
  };
  const Xid first = machine.take();
  EXPECT_EQ(given(), 0);
  const Xid second = machine.take();
  EXPECT_EQ(given(), 0);
  machine.run([&] {
    (void)machine.history().compare(machine.volume(), machine.record(first), machine.record(second), false, true);
  });
  EXPECT_EQ(machine.here().sim.process().timesMemoryWasGivenBack(), 0) << "never before the answer";
  EXPECT_EQ(given(), 1);
}

}  // namespace
}  // namespace quillmark
