#include "QuillWorld.h"
#include "quill/ProgressSign.h"

namespace quillmark::cli {
namespace {

using namespace std::chrono_literals;

// What was written to standard error while something took that long.
std::string signOf(std::chrono::milliseconds duration) {
  TextInMemory sink;
  sim::Simulation simulation;
  sim::Life& life = simulation.startLife("quill");
  simulation.run(life, [&] {
    const ProgressSign sign(life.dispatch(), sink, "waiting");
    life.delay(duration);
  });
  const std::size_t written = sink.errors.size();
  simulation.runFor(10s);
  EXPECT_EQ(sink.errors.size(), written) << "drawn after its end";
  EXPECT_EQ(sink.output, "");
  return sink.errors;
}

TEST(ProgressSign, saysNothingOfWhatIsDoneInAMoment) { EXPECT_EQ(signOf(250ms), ""); }

TEST(ProgressSign, turnsWhileWorkGoesOnAndLeavesNoTrace) {
  EXPECT_EQ(signOf(500ms), "\r\x1b[K| waiting\r\x1b[K/ waiting\r\x1b[K");
}

}  // namespace
}  // namespace quillmark::cli
