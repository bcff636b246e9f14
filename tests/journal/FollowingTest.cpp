// Readers that follow by cursor while records are appended, files rotated, processes torn off and archives pruned.
#include <set>

#include "JournalMachine.h"
#include "platform/sim/Draws.h"
#include "tests/base/ForwardingPosix.h"

namespace quillmark {
namespace {

using ::testing::ElementsAreArray;
using ::testing::IsSupersetOf;

std::vector<std::string> numbers(int from, int end) {
  std::vector<std::string> texts;
  for (int i = from; i < end; ++i) texts.push_back(std::to_string(i));
  return texts;
}

// Follows one log and keeps what it was given.
struct Follower {
  std::optional<JSONLinesCursor> cursor;
  std::vector<std::string> seen;
  int restarts = 0;

  void read(const JSONLinesReader<HelperEvent>& reader) {
    const ReadBatch<HelperEvent> batch = reader.readSince(cursor);
    ASSERT_EQ(batch.error, std::nullopt);
    if (cursor && !batch.resumedCursor) ++restarts;
    cursor = batch.cursor;
    for (const HelperEvent& event : batch.records) seen.push_back(event.detail);
  }
};

// Goal:   whatever happens between their reads, followers see each record that is not pruned, in order; exactly once
//         unless their file was pruned under them, and then from the oldest that is left.
TEST(FollowingTest, followersSeeEachRecordOnceAndInOrder) {
  int rotations = 0, restarts = 0;
  for (std::uint64_t seed = 1; seed <= 40; ++seed) {
    sim::Draws draws(seed);
    JournalMachine machine;
    const JSONLinesDescription shape = machine.shape(200 + draws.below(2000), seed % 2 == 0 ? 1000 : 3);
    auto log = machine.log(shape);
    Follower quick, slow;
    int written = 0;
    for (int step = 0; step < 120; ++step) {
      switch (draws.below(8)) {
        case 0:
          if (written > 0) machine.scribble(std::string(1 + draws.below(50), '{'));
          log = machine.log(shape);
          break;
        case 1: slow.read(machine.reader()); break;
        case 2: quick.read(machine.reader()); break;
        case 3: machine.clock.jumpWall(std::chrono::seconds(static_cast<int>(draws.below(200)) - 100)); break;
        default: EXPECT_APPENDED(log->append(eventWith(std::to_string(written++)))); break;
      }
    }
    rotations += static_cast<int>(machine.archives().size());
    for (Follower* follower : {&quick, &slow}) {
      follower->read(machine.reader());
      const std::vector<std::string> left = machine.details();
      const std::set<std::string> seen(follower->seen.begin(), follower->seen.end());
      for (const std::string& record : left) EXPECT_TRUE(seen.contains(record)) << record << ", seed " << seed;
      restarts += follower->restarts;
      if (follower->restarts == 0 && !follower->seen.empty()) {
        EXPECT_THAT(follower->seen, ElementsAreArray(numbers(std::stoi(follower->seen.front()), written)))
            << "seed " << seed;
      }
      EXPECT_TRUE(follower->restarts == 0 || shape.retainedArchiveCount == 3) << "seed " << seed;
    }
  }
  EXPECT_GT(rotations, 100);
  EXPECT_GT(restarts, 5) << "pruning under a reader was never met";
}

// The machine's files, with something happening before each call of a reader.
class DisturbedPosix final : public ForwardingPosix {
 public:
  DisturbedPosix(Posix& files, FunctionRef<void(int call)> disturb) : ForwardingPosix(files), disturb_(disturb) {}

  SysResult<int> open(const std::string& path, OpenFlags flags) override { return files().open(path, flags); }
  SysResult<std::size_t> read(int fd, std::span<std::byte> into) override { return files().read(fd, into); }
  SysResult<std::size_t> pread(int fd, std::span<std::byte> into, std::uint64_t offset) override {
    return files().pread(fd, into, offset);
  }
  SysResult<FileStatus> fstat(int fd) override { return files().fstat(fd); }
  SysResult<FileStatus> lstat(const std::string& path) override { return files().lstat(path); }
  // The directory as it was before the disturbance, for a listing that was overtaken.
  SysResult<std::vector<std::string>> list(const std::string& path) override {
    auto names = inner().list(path);
    disturb_(++calls_);
    return names;
  }

  [[nodiscard]] int calls() const { return calls_; }

 private:
  Posix& files() {
    disturb_(++calls_);
    return inner();
  }

  FunctionRef<void(int call)> disturb_;
  int calls_ = 0;
};

// A follower reads while a writer appends and rotates at the reader's n-th call, n = 1, 2, ... until the read ends
// before; then it reads all the rest by its cursor, and the check looks at it.
void followDisturbed(std::int64_t retained, int appended, FunctionRef<void(JournalMachine&, Follower&, int)> check) {
  for (const bool hasCursor : {false, true}) {
    bool wasDisturbed = true;
    for (int at = 1; wasDisturbed; ++at) {
      SCOPED_TRACE("at call " + std::to_string(at));
      JournalMachine machine;
      const auto log = machine.log(machine.shape(1, retained));
      int written = 0;
      const auto append = [&](int count) {
        for (; count > 0; --count) EXPECT_APPENDED(log->append(eventWith(std::to_string(written++))));
      };
      append(2);
      Follower follower;
      if (hasCursor) follower.read(machine.reader());
      append(1);
      const auto disturb = [&](int call) {
        if (call == at) append(appended);
      };
      DisturbedPosix disturbed(*machine.posix, disturb);
      follower.read({disturbed, machine.platformLog, machine.shape()});
      follower.read(machine.reader());
      check(machine, follower, written);
      wasDisturbed = disturbed.calls() >= at;
    }
  }
}

// Goal:   a writer that rotates once or several times between any two calls of a reader makes it miss nothing and
//         repeat nothing.
TEST(FollowingTest, aRotationBetweenAnyTwoCallsOfAReaderIsHarmless) {
  for (const int appended : {1, 2, 5}) {
    followDisturbed(1000, appended, [](JournalMachine&, const Follower& follower, int written) {
      EXPECT_THAT(follower.seen, ElementsAreArray(numbers(0, written)));
      EXPECT_EQ(follower.restarts, 0);
    });
  }
}

// Goal: where a reader's files are pruned under it, it goes on with the oldest that is left and gives nothing twice.
TEST(FollowingTest, pruningBetweenAnyTwoCallsOfAReaderIsNoFailure) {
  followDisturbed(2, 4, [](JournalMachine& machine, const Follower& follower, int) {
    // Of one digit each.
    const auto& seen = follower.seen;
    EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end(), std::greater_equal<>()), seen.end());
    EXPECT_THAT(seen, IsSupersetOf(machine.details()));
  });
}

}  // namespace
}  // namespace quillmark
