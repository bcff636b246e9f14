// Readers that follow by cursor while records are appended, files rotated, processes torn off and archives pruned.
#include <set>

#include "JournalMachine.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Posix.h"
#include "platform/sim/Draws.h"

namespace quillmark {
namespace {

using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
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

// The machine's files, with something happening before a chosen call of whoever uses them through this.
class DisturbedPosix final : public Posix {
 public:
  DisturbedPosix(Posix& files, FunctionRef<void(int call)> disturb) : files_(files), disturb_(disturb) {}

  SysResult<int> open(const std::string& path, OpenFlags flags) override { return files().open(path, flags); }
  void close(int fd) override { files_.close(fd); }
  SysResult<std::size_t> read(int fd, std::span<std::byte> into) override { return files().read(fd, into); }
  SysResult<std::size_t> pread(int fd, std::span<std::byte> into, std::uint64_t offset) override {
    return files().pread(fd, into, offset);
  }
  SysResult<std::size_t> write(int, std::string_view) override { return Errno{EROFS}; }
  SysStatus fsync(int) override { return Errno{EROFS}; }
  SysStatus fchmod(int, std::uint32_t) override { return Errno{EROFS}; }
  SysStatus fchown(int, std::uint32_t, std::uint32_t) override { return Errno{EROFS}; }
  SysStatus ftruncate(int, std::int64_t) override { return Errno{EROFS}; }
  SysResult<FileStatus> fstat(int fd) override { return files().fstat(fd); }
  SysStatus tryLockFile(int) override { return Errno{EROFS}; }
  SysResult<FileStatus> lstat(const std::string& path) override { return files().lstat(path); }
  SysStatus mkdir(const std::string&, std::uint32_t) override { return Errno{EROFS}; }
  SysStatus rmdir(const std::string&) override { return Errno{EROFS}; }
  SysStatus unlink(const std::string&) override { return Errno{EROFS}; }
  SysStatus rename(const std::string&, const std::string&) override { return Errno{EROFS}; }
  SysStatus chmod(const std::string&, std::uint32_t) override { return Errno{EROFS}; }
  SysStatus chown(const std::string&, std::uint32_t, std::uint32_t) override { return Errno{EROFS}; }
  // The directory as it was before the disturbance, for a listing that was overtaken.
  SysResult<std::vector<std::string>> list(const std::string& path) override {
    auto names = files_.list(path);
    disturb_(++calls_);
    return names;
  }

  [[nodiscard]] int calls() const { return calls_; }

 private:
  Posix& files() {
    disturb_(++calls_);
    return files_;
  }

  Posix& files_;
  FunctionRef<void(int call)> disturb_;
  int calls_ = 0;
};

// Goal:   a writer that rotates once or several times between any two calls of a reader makes it miss nothing and
//         repeat nothing.
// Method: the writer comes at the reader's n-th call, n = 1, 2, ... until the read ends before; then all the rest is
//         read by cursor.
TEST(FollowingTest, aRotationBetweenAnyTwoCallsOfAReaderIsHarmless) {
  for (const int appended : {1, 2, 5}) {
    for (const bool hasCursor : {false, true}) {
      for (int at = 1;; ++at) {
        JournalMachine machine;
        const auto log = machine.log(machine.shape(1, 1000));
        int written = 0;
        const auto append = [&] { EXPECT_APPENDED(log->append(eventWith(std::to_string(written++)))); };
        append();
        append();
        Follower follower;
        if (hasCursor) follower.read(machine.reader());
        append();
        const auto disturb = [&](int call) {
          if (call != at) return;
          for (int i = 0; i < appended; ++i) append();
        };
        DisturbedPosix disturbed(*machine.posix, disturb);
        follower.read({disturbed, machine.platformLog, machine.shape()});
        follower.read(machine.reader());
        EXPECT_THAT(follower.seen, ElementsAreArray(numbers(0, written))) << "at call " << at;
        EXPECT_EQ(follower.restarts, 0);
        if (disturbed.calls() < at) break;
      }
    }
  }
}

// Goal: where a reader's files are pruned under it, it goes on with the oldest that is left and gives nothing twice.
TEST(FollowingTest, pruningBetweenAnyTwoCallsOfAReaderIsNoFailure) {
  for (const bool hasCursor : {false, true}) {
    for (int at = 1;; ++at) {
      JournalMachine machine;
      const auto log = machine.log(machine.shape(1, 2));
      int written = 0;
      const auto append = [&] { EXPECT_APPENDED(log->append(eventWith(std::to_string(written++)))); };
      append();
      append();
      Follower follower;
      if (hasCursor) follower.read(machine.reader());
      append();
      const auto disturb = [&](int call) {
        if (call != at) return;
        for (int i = 0; i < 4; ++i) append();
      };
      DisturbedPosix disturbed(*machine.posix, disturb);
      follower.read({disturbed, machine.platformLog, machine.shape()});
      follower.read(machine.reader());
      const std::vector<int> seen = [&] {
        std::vector<int> all;
        for (const std::string& detail : follower.seen) all.push_back(std::stoi(detail));
        return all;
      }();
      EXPECT_EQ(std::adjacent_find(seen.begin(), seen.end(), std::greater_equal<>()), seen.end()) << "at call " << at;
      const std::vector<std::string> left = machine.details();
      EXPECT_THAT(follower.seen, IsSupersetOf(left)) << "at call " << at;
      if (disturbed.calls() < at) break;
    }
  }
}

// Goal: the same with a real writer's thread and two real readers beside it, through more than ten rotations.
TEST(FollowingTest, twoReadersFollowAWriterAtWork) {
  sim::SimPosix place;  // for its directory only
  os::LinuxPosix posix;
  os::LinuxClock clock;
  os::LinuxDispatch dispatch(clock);
  sim::SimPlatformLog platformLog;
  JSONLinesDescription shape = activityLogDescription({.sharedDirectory = place.root() + "/log"});
  shape.rotationBytes = 20'000;
  shape.retainedArchiveCount = 1000;
  JSONLinesLog<HelperEvent> log(dispatch, posix, platformLog, shape);
  constexpr int count = 1500;
  Guarded<bool> done(dispatch, false);
  Group group(dispatch);
  std::array<Follower, 2> followers;
  std::array<sim::SimPlatformLog, 2> logs;
  for (std::size_t i = 0; i < followers.size(); ++i) {
    group.enter();
    dispatch.global(QualityOfService::utility)->async([&, i] {
      const JSONLinesReader<HelperEvent> reader(posix, logs[i], shape);
      while (!done.with([](bool value) { return value; })) followers[i].read(reader);
      group.leave();
    });
  }
  for (int i = 0; i < count; ++i) EXPECT_APPENDED(log.append(eventWith(std::to_string(i))));
  done.with([](bool& value) { value = true; });
  group.wait();
  EXPECT_GT(posix.list(shape.directoryPath)->size(), 10U);
  for (Follower& follower : followers) {
    follower.read({posix, platformLog, shape});
    EXPECT_THAT(follower.seen, ElementsAreArray(numbers(0, count)));
    EXPECT_EQ(follower.restarts, 0);
  }
  for (const auto& quiet : logs) EXPECT_THAT(quiet.entries(), IsEmpty());
}

}  // namespace
}  // namespace quillmark
