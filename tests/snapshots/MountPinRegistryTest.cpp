#include <gtest/gtest.h>

#include "platform/dispatch.h"
#include "platform/sim/Simulation.h"
#include "snapshots/MountPinRegistry.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;

struct Pins {
  sim::Simulation simulation;
  sim::Life& life = simulation.startLife("helper");
  MountPinRegistry registry{life.dispatch(), life.random()};
  const std::string a = "/Volumes/Data@snap-1", b = "/Volumes/Data@snap-2";
};

TEST(MountPinRegistry, holdsExactlyItsPathsUntilItsTimeIsOver) {
  Pins pins;
  const std::string token = pins.registry.pin({pins.a, pins.b}, "browsing", std::nullopt, 90s);
  EXPECT_TRUE(Uuid::parse(token));
  EXPECT_EQ(pins.registry.activeReason(pins.a), "browsing");
  EXPECT_EQ(pins.registry.activeReason(pins.b), "browsing");
  EXPECT_FALSE(pins.registry.activeReason(pins.a + "/below"));
  pins.simulation.runFor(89s);
  EXPECT_TRUE(pins.registry.activeReason(pins.a));
  pins.simulation.runFor(1s);
  EXPECT_FALSE(pins.registry.activeReason(pins.a)) << "it lives while its end is later than now";
}

TEST(MountPinRegistry, renewsALiveTokenAndNoOther) {
  Pins pins;
  const std::string token = pins.registry.pin({pins.a}, "one", std::nullopt, 90s);
  pins.simulation.runFor(60s);
  EXPECT_EQ(pins.registry.pin({pins.b}, "two", token, 90s), token);
  EXPECT_FALSE(pins.registry.activeReason(pins.a)) << "paths are replaced";
  EXPECT_EQ(pins.registry.activeReason(pins.b), "two");
  pins.simulation.runFor(60s);
  EXPECT_EQ(pins.registry.activeReason(pins.b), "two") << "so is the time";
  pins.simulation.runFor(60s);
  const std::string next = pins.registry.pin({pins.a}, "three", token, 90s);
  EXPECT_NE(next, token) << "an expired token isn't renewed";
  EXPECT_NE(pins.registry.pin({pins.a}, "four", "a client's own", 90s), "a client's own");
}

TEST(MountPinRegistry, letsGoOfAPinAndOfNothingElse) {
  Pins pins;
  const std::string first = pins.registry.pin({pins.a}, "first", std::nullopt, 90s);
  const std::string second = pins.registry.pin({pins.a}, "second", std::nullopt, 90s);
  pins.registry.unpin("unknown");
  pins.registry.unpin(first);
  EXPECT_EQ(pins.registry.activeReason(pins.a), "second");
  pins.registry.unpin(second);
  EXPECT_FALSE(pins.registry.activeReason(pins.a));
}

TEST(MountPinRegistry, acceptsADayAtMostAndABoundedNumber) {
  Pins pins;
  (void)pins.registry.pin({pins.a}, "long", std::nullopt, 1000h);
  pins.simulation.runFor(24h - 1s);
  EXPECT_TRUE(pins.registry.activeReason(pins.a));
  pins.simulation.runFor(1s);
  EXPECT_FALSE(pins.registry.activeReason(pins.a));
  std::string last;
  for (std::size_t i = 0; i < MountPinRegistry::capacity; ++i) {
    last = pins.registry.pin({pins.a}, "", std::nullopt, 90s);
  }
  EXPECT_THROW((void)pins.registry.pin({pins.a}, "", std::nullopt, 90s), Error);
  EXPECT_EQ(pins.registry.pin({pins.a}, "", last, 90s), last) << "a renewal takes no more room";
  pins.simulation.runFor(90s);
  (void)pins.registry.pin({pins.a}, "", std::nullopt, 90s);
}

}  // namespace
}  // namespace quillmark
