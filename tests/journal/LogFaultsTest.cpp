// Goal:   an acknowledged record is there after whatever goes wrong with a later call, a kill and a power cut; a failed
//         append costs at most one corrupt line, and the next one works.
// Method: append under a fault at the n-th file call, n = 1, 2, ... until none fires. Look at what is left; append as
//         the next process; cut the power behind that, too.
#include "JournalMachine.h"
#include "platform/sim/FaultSweep.h"

namespace quillmark {
namespace {

using sim::Fault;
using sim::FaultRun;
using sim::SimPosix;
using ::testing::IsEmpty;

// Lines of some pages, so that a cut may drop any part of them.
HelperEvent wideEvent(const std::string& detail) {
  HelperEvent event = eventWith(detail);
  event.errorMessage = std::string(6000, 'e');
  return event;
}

struct Scene {
  std::string name;
  std::uint64_t rotationBytes;
  std::int64_t retained;
  std::vector<std::string> before;  // records that stand there
  std::string tornTail = "";
  std::vector<std::string> kept = before;  // those that the append may not prune
};

class Logs {
 public:
  explicit Logs(const Scene& scene) : scene_(scene) {}

  [[nodiscard]] std::optional<Error> append(SimPosix& posix, const std::string& detail) {
    return JSONLinesLog<HelperEvent>(dispatch_, posix, platformLog_, shape(posix)).append(wideEvent(detail));
  }
  [[nodiscard]] ReadBatch<HelperEvent> read(SimPosix& posix) {
    return JSONLinesReader<HelperEvent>(posix, platformLog_, shape(posix)).readSince({});
  }
  void prepare(SimPosix& posix) {
    for (const std::string& detail : scene_.before) ASSERT_EQ(textOf(append(posix, detail)), "");
    if (!scene_.tornTail.empty()) std::ofstream(shape(posix).currentPath(), std::ios::app) << scene_.tornTail;
  }

  // What is wrong with the log: `must` has to be there in this order, nothing else but `may`, behind it.
  [[nodiscard]] std::string complaint(SimPosix& posix, const std::vector<std::string>& must, const std::string& may) {
    const ReadBatch<HelperEvent> batch = read(posix);
    if (batch.error) return "unreadable: " + *batch.error;
    if (batch.skippedCorruptLines > (scene_.tornTail.empty() ? 1 : 2)) return "more than one corrupt line for a crash";
    std::vector<std::string> found = detailsOf(batch.records);
    for (const std::string& pruned : scene_.before) {
      const bool isKept = std::find(must.begin(), must.end(), pruned) != must.end();
      if (!isKept && !found.empty() && found.front() == pruned) found.erase(found.begin());
    }
    std::vector<std::string> others = found;
    for (const std::string& detail : must) {
      const auto at = std::find(others.begin(), others.end(), detail);
      if (at == others.end()) return "lost: " + detail + ", found " + ::testing::PrintToString(found);
      others.erase(at);
    }
    if (!others.empty() && others != std::vector{may}) return "found " + ::testing::PrintToString(found);
    std::vector<std::string> sorted = found;
    std::sort(sorted.begin(), sorted.end());
    return sorted == found ? "" : "out of order: " + ::testing::PrintToString(found);
  }

 private:
  [[nodiscard]] JSONLinesDescription shape(SimPosix& posix) const {
    auto description = activityLogDescription({.sharedDirectory = posix.root() + "/var/lib/quillmark"});
    description.rotationBytes = scene_.rotationBytes;
    description.retainedArchiveCount = scene_.retained;
    return description;
  }

  const Scene& scene_;
  sim::SimPlatformLog platformLog_;
  sim::MachineClock clock_{Date::from1970(1'773'479'702), "UTC"};
  os::LinuxDispatch dispatch_{clock_};
};

std::vector<std::string> complaintsOf(const Scene& scene) {
  Logs logs(scene);
  const auto failing = [&](SimPosix& posix) {
    if (const std::optional<Error> error = logs.append(posix, "m")) throw *error;
  };
  const auto check = [&](SimPosix& after, const FaultRun& run) -> std::string {
    std::vector<std::string> must = scene.kept;
    if (run.completed) must.push_back("m");
    std::string complaint = logs.complaint(after, must, "m");
    if (!complaint.empty()) return complaint;
    after.setPlan({});
    if (const std::optional<Error> error = logs.append(after, "z")) return "the next append: " + error->description();
    // The next append may prune by itself.
    if (scene.retained < 8) must.erase(must.begin());
    must.push_back("z");
    complaint = logs.complaint(after, must, "m");
    if (!complaint.empty()) return "after the next append, " + complaint;
    for (std::uint64_t seed = 1; seed <= 3; ++seed) {
      complaint = logs.complaint(*after.powerCut(run.plan.seed * 31 + seed), must, "m");
      if (!complaint.empty()) return "after the next append and a power cut, " + complaint;
    }
    return "";
  };
  return sim::forEachFault(
      {.errors = {EIO, ENOSPC, ENOENT}, .powerCutsEach = 8}, [&](SimPosix& posix) { logs.prepare(posix); }, failing,
      check);
}

TEST(LogFaultsTest, noFaultLosesARecordThatWasAcknowledged) {
  const std::uint64_t never = 1 << 20;
  const std::vector<Scene> scenes{
      {"nothing there", never, 8, {}},
      {"a log", never, 8, {"a", "b"}},
      {"a torn tail", never, 8, {"a", "b"}, R"({"id":"0F1E)"},
      {"a rotation", 1, 8, {"a", "b", "c"}},
      {"a rotation that prunes", 1, 2, {"a", "b", "c"}, "", {"b", "c"}},
  };
  for (const Scene& scene : scenes) EXPECT_THAT(complaintsOf(scene), IsEmpty()) << scene.name;
}

// Goal:   a process that dies in a rotation leaves nothing that the next one's death and a power cut could make a loss of.
// Method: kill the first at each of its syncs, the next at each of its calls.
TEST(LogFaultsTest, twoDeathsInARowLoseNothing) {
  const Scene scene{"a rotation", 1, 8, {"a", "b"}};
  Logs logs(scene);
  const auto dies = [&](SimPosix& posix, sim::FaultPlan plan, const std::string& detail) {
    posix.setPlan(plan);
    try {
      (void)logs.append(posix, detail);
    } catch (const sim::SimulatedKill&) {
    }
    return posix.faultFired();
  };
  int deaths = 0;
  bool first = true;
  for (std::uint64_t sync = 1; first; ++sync) {
    bool second = true;
    for (std::uint64_t call = 1; second; ++call) {
      SimPosix posix;
      logs.prepare(posix);
      posix.syncEverything();
      first = dies(posix, {.fault = Fault::kill, .atCall = sync, .only = sim::PosixCall::fsync}, "m");
      const std::unique_ptr<SimPosix> next = posix.copyForSuccessor();
      second = first && dies(*next, {.fault = Fault::kill, .atCall = call}, "m");
      deaths += second ? 1 : 0;
      for (std::uint64_t seed = 1; seed <= 12; ++seed) {
        const ReadBatch<HelperEvent> batch = logs.read(*next->powerCut(seed));
        std::vector<std::string> found = detailsOf(batch.records);
        std::erase(found, "m");
        EXPECT_EQ(found, scene.before) << "sync " << sync << ", call " << call << ", seed " << seed;
      }
    }
  }
  EXPECT_GT(deaths, 30);
}

// Goal: what a fault did to one process's memory of its files doesn't harm that process's next records either.
TEST(LogFaultsTest, theSameProcessGoesOnAfterEveryFault) {
  for (const Fault fault : {Fault::fail, Fault::shortWrite}) {
    for (std::uint64_t atCall = 1, fired = 1; fired; ++atCall) {
      JournalMachine machine;
      const auto log = machine.log(machine.shape(6000, 8));
      EXPECT_APPENDED(log->append(wideEvent("a")));
      machine.posix->setPlan({.fault = fault, .atCall = atCall, .error = EIO});
      const bool acknowledged = !log->append(wideEvent("b"));
      fired = machine.posix->faultFired() || (fault == Fault::shortWrite && machine.posix->calls() >= atCall);
      machine.posix->setPlan({});
      EXPECT_APPENDED(log->append(wideEvent("c")));
      for (std::uint64_t seed = 1; seed <= 8; ++seed) {
        JournalMachine after(machine.posix->powerCut(seed));
        std::vector<std::string> found = after.details();
        if (!acknowledged) std::erase(found, "b");
        const std::vector<std::string> wanted =
            acknowledged ? std::vector<std::string>{"a", "b", "c"} : std::vector<std::string>{"a", "c"};
        EXPECT_EQ(found, wanted) << "call " << atCall << ", seed " << seed;
        EXPECT_LE(after.read().skippedCorruptLines, 1);
      }
    }
  }
}

// Goal: after a failed fsync the kernel may have dropped what still reads well, so that the next line stands alone.
TEST(LogFaultsTest, behindAFailedSyncALineBeginsAnew) {
  JournalMachine machine;
  const auto log = machine.log();
  EXPECT_APPENDED(log->append(eventWith("a")));
  machine.posix->setPlan({.fault = Fault::fail, .atCall = 1, .only = sim::PosixCall::fsync});
  EXPECT_NE(log->append(eventWith("b")), std::nullopt);
  machine.posix->setPlan({});
  for (const char* detail : {"c", "d"}) EXPECT_APPENDED(log->append(eventWith(detail)));
  const auto line = [](const char* detail) { return encodeJson(eventWith(detail)) + "\n"; };
  EXPECT_EQ(machine.contents(), line("a") + line("b") + "\n" + line("c") + line("d"));
  EXPECT_EQ(machine.read().skippedCorruptLines, 0);
}

}  // namespace
}  // namespace quillmark
