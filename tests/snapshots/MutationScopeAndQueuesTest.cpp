#include <gtest/gtest.h>

#include "platform/dispatch.h"
#include "platform/sim/Simulation.h"
#include "snapshots/SnapshotMutationScope.h"
#include "snapshots/VolumeQueueRegistry.h"

namespace quillmark {
namespace {

const std::string upper = "00112233-4455-6677-8899-AABBCCDDEEFF";
const std::string lower = "00112233-4455-6677-8899-aabbccddeeff";
const std::string sibling = "00112233-ffff-6677-8899-aabbccddeeff";

TEST(SnapshotMutationScope, closesWithTheLastOfItsBatchesInAnyLetterCase) {
  sim::Simulation simulation;
  SnapshotMutationScope scope(simulation.startLife("helper").dispatch());
  EXPECT_FALSE(scope.isOpen(upper));
  scope.enter(upper);
  scope.enter(lower);
  EXPECT_FALSE(scope.leave(upper));
  EXPECT_TRUE(scope.isOpen(lower));
  EXPECT_FALSE(scope.isOpen(sibling));
  EXPECT_TRUE(scope.leave(upper));
  EXPECT_FALSE(scope.isOpen(lower));
}

TEST(SnapshotMutationScope, tellsAtItsLastExitWhatAnybodyChangedMeanwhile) {
  sim::Simulation simulation;
  SnapshotMutationScope scope(simulation.startLife("helper").dispatch());
  EXPECT_FALSE(scope.holdsBack(upper));
  scope.enter(upper);
  EXPECT_FALSE(scope.leave(upper, false)) << "nothing to tell";
  scope.enter(upper);
  EXPECT_TRUE(scope.holdsBack(lower));
  EXPECT_TRUE(scope.leave(upper, false)) << "what somebody else changed";
  scope.enter(upper);
  scope.enter(upper);
  EXPECT_FALSE(scope.leave(upper, true));
  EXPECT_TRUE(scope.leave(upper, false)) << "what the other batch changed";
}

TEST(SnapshotMutationScope, isNotLeftOpenByALeaveTooMany) {
  sim::Simulation simulation;
  SnapshotMutationScope scope(simulation.startLife("helper").dispatch());
  EXPECT_TRUE(scope.leave(upper));
  EXPECT_FALSE(scope.isOpen(upper));
  scope.enter(upper);
  EXPECT_TRUE(scope.isOpen(upper)) << "an exit before counts for nothing";
  EXPECT_TRUE(scope.leave(upper));
}

TEST(VolumeQueueRegistry, givesEachVolumeOneSerialQueueOfItsOwn) {
  sim::Simulation simulation;
  sim::Life& life = simulation.startLife("helper");
  simulation.run(life, [&] {
    VolumeQueueRegistry registry(life.dispatch());
    const auto queue = registry.queue(upper);
    EXPECT_EQ(registry.queue(lower), queue);
    EXPECT_EQ(queue->label(), "com.harrowfern.quillmark.volume.00112233");
    EXPECT_NE(registry.queue(sibling), queue);
    EXPECT_EQ(registry.queue(sibling)->label(), queue->label());
    bool inside = false;
    int overlaps = 0;
    for (int i = 0; i < 10; ++i) {
      queue->async([&] {
        overlaps += std::exchange(inside, true);
        life.delay(std::chrono::milliseconds(1));
        inside = false;
      });
    }
    queue->sync([] {});
    EXPECT_EQ(overlaps, 0);
  });
}

}  // namespace
}  // namespace quillmark
