#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "QuillWorld.h"
#include "journal/HelperEvent.h"
#include "quill/Failures.h"
#include "wire/Json.h"
#include "wire/JsonText.h"

namespace quillmark::cli {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

HelperEvent eventOf(HelperEvent::Kind kind, int minute, const std::string& detail = "") {
  return {.id = "0F0E0D0C-0000-4000-8000-000000000001",
          .timestamp = Date::from1970(1'772'355'600 + minute * 60),
          .kind = kind,
          .client = HelperEvent::Client::cli,
          .user = "ida",
          .volumeName = "Data",
          .volumeUUID = dataUUID,
          .snapshotName = manualName("2026-03-01", "first"),
          .detail = detail,
          .succeeded = true,
          .durationMs = 12};
}

std::string lineOf(const HelperEvent& event) { return encodeJson(event) + "\n"; }
std::string numbered(int number) {
  return lineOf(eventOf(HelperEvent::Kind::createSnapshot, number, fmt::format("number {}", number)));
}

// The numbers that a piped listing shows, in order.
std::vector<int> numbersIn(const std::string& output) {
  std::vector<int> numbers;
  for (std::size_t at = 0; (at = output.find("number\\x20", at)) != std::string::npos; ++at) {
    numbers.push_back(std::stoi(output.substr(at + 10)));
  }
  return numbers;
}

std::vector<int> range(int begin, int end) {
  std::vector<int> numbers;
  for (int i = begin; i < end; ++i) numbers.push_back(i);
  return numbers;
}

class Log : public testing::Test {
 protected:
  // Three files; the numbers ascend through them.
  void writeArchives() {
    for (int i = 0; i < 30; ++i) {
      const char* file = i < 10   ? "activity-20260301-090000.000-0001.log"
                         : i < 20 ? "activity-20260301-100000.000-0001.log"
                                  : "activity.log";
      world.append(file, numbered(i));
    }
  }
  std::string path(const std::string& name) const { return world.paths.sharedDirectory + "/" + name; }

  QuillWorld world;
};

TEST_F(Log, printsWholeRecordsForProgramsTheNewestLast) {
  HelperEvent failed = eventOf(HelperEvent::Kind::deleteSnapshot, 1, "x\x1b[2J");
  failed.succeeded = false;
  failed.errorMessage = "Refusing.";
  failed.user.reset();
  failed.client = HelperEvent::Client::helper;
  failed.volumeName.clear();
  world.append("activity.log", lineOf(eventOf(HelperEvent::Kind::createSnapshot, 0, "my label")) + lineOf(failed));
  const Result result = world.run({"log"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "2026-03-01T09:00:00+00:00 createSnapshot ok cli ida Data " + dataUUID + " " +
                               manualName("2026-03-01", "first") +
                               " 12 my\\x20label -\n2026-03-01T09:01:00+00:00 deleteSnapshot failed helper - - " +
                               dataUUID + " " + manualName("2026-03-01", "first") + " 12 x\\x1b[2J Refusing.\n");
  const std::string json = world.run({"log", "--json"}).output;
  EXPECT_EQ(decodeJson<HelperEvent>(json.substr(json.find('\n') + 1)), failed);
  EXPECT_EQ(std::count(json.begin(), json.end(), '\x1b'), 0);
  EXPECT_THAT(result.errors, IsEmpty());
}

TEST_F(Log, showsPeopleWhatMattersInTheirZoneAndWhyThingsFailed) {
  HelperEvent forced = eventOf(HelperEvent::Kind::deleteSnapshot, 1);
  forced.detail = *forced.snapshotName + " (force)";
  HelperEvent failed = forced;
  failed.succeeded = false;
  failed.errorMessage = "Refusing\x1b[31m.";
  failed.client = HelperEvent::Client::gui;
  world.append("activity.log",
               lineOf(eventOf(HelperEvent::Kind::setProtection, 0, "protected")) + lineOf(failed) + lineOf(forced));
  world.simulation.setTimeZone("Asia/Kolkata");
  world.terminal.outputIsTerminal = true;
  const std::string name = "manual.2026-03-01T00-00-00Z.first";
  EXPECT_EQ(world.run({"log"}).output,
            "TIME                 EVENT               BY         VOLUME  SNAPSHOT                           DETAIL\n"
            "2026-03-01 14:30:00  Protection Changed  ida        Data    " +
                name +
                "  protected\n"
                "2026-03-01 14:31:00  Snapshot Deleted    ida (GUI)  Data    " +
                name +
                "  failed\n"
                "  Refusing\\x1b[31m.\n"
                "2026-03-01 14:31:00  Snapshot Deleted    ida        Data    " +
                name + "  (force)\n");
  world.terminal.columns = 80;
  EXPECT_EQ(world.run({"log", "-n", "2"}).output,
            "TIME                 EVENT             BY         VOLUME  DETAIL\n"
            "2026-03-01 14:31:00  Snapshot Deleted  ida (GUI)  Data    failed\n"
            "  " +
                name +
                "\n"
                "  Refusing\\x1b[31m.\n"
                "2026-03-01 14:31:00  Snapshot Deleted  ida        Data    (force)\n"
                "  " +
                name + "\n");
  EXPECT_THAT(world.run({"log", "--full"}).output, HasSubstr(" " + manualName("2026-03-01", "first") + "  (force)"));
}

TEST_F(Log, readsThroughRotatedFilesAndTakesTheLastFromTheNewest) {
  writeArchives();
  EXPECT_EQ(numbersIn(world.run({"log"}).output), range(0, 30));
  for (const int count : {0, 1, 10, 11, 25, 30, 31}) {
    const Result result = world.run({"log", "-n", std::to_string(count)});
    EXPECT_EQ(numbersIn(result.output), range(std::max(0, 30 - count), 30)) << count;
  }
  EXPECT_EQ(numbersIn(world.run({"log", "-n", "3", "--since", "2026-03-01 09:05"}).output), range(27, 30));
  world.reads = 0;
  EXPECT_EQ(world.run({"log"}).exitCode, 0) << "a reader that goes away is no failure";
}

TEST_F(Log, picksByKindVolumeTimeAndOutcome) {
  HelperEvent failed = eventOf(HelperEvent::Kind::deleteSnapshot, 3);
  failed.succeeded = false;
  HelperEvent elsewhere = eventOf(HelperEvent::Kind::setTag, 4);
  elsewhere.volumeName = "Gone";
  elsewhere.volumeUUID = homeUUID;
  HelperEvent nameless = eventOf(HelperEvent::Kind::unmountSnapshot, 5);
  nameless.volumeUUID.clear();
  for (const HelperEvent& event : {eventOf(HelperEvent::Kind::createSnapshot, 0),
                                   eventOf(HelperEvent::Kind::setProtection, 2), failed, elsewhere, nameless})
    world.append("activity.log", lineOf(event));
  world.volumes.places["/mnt/data/x"] = {Place::Kind::volumes, {"/mnt/data"}};
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{}, 5},
      {{"--kind", "delete"}, 1},
      {{"--kind", "create,Protect", "--kind", "setTag"}, 3},
      {{"--failed"}, 1},
      {{"-v", "Data"}, 4},
      {{"-v", "/mnt/data/x"}, 4},
      {{"-v", dataUUID}, 4},
      {{"-v", "gone"}, 1},
      {{"-v", homeUUID}, 1},
      {{"-v", "nowhere"}, 0},
      {{"--since", "2026-03-01T09:03Z"}, 3},
      {{"--since", "2026-03-01T10:03:30+01:00", "-v", "Data"}, 1},
  };
  for (const auto& [options, count] : cases) {
    const Result result = world.run({"log"}, options);
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), count) << testing::PrintToString(options);
    EXPECT_EQ(result.exitCode, 0);
  }
}

TEST_F(Log, linesThatAreNoRecordsAreToldAndHarmNothing) {
  world.append("activity.log", numbered(1) + "{\"bad\x1b\n" + numbered(2));
  Result result = world.run({"log", "-n", "5"});
  EXPECT_EQ(numbersIn(result.output), range(1, 3));
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.errors, StartsWith("quill: skipping corrupt row in " + path("activity.log") + " at byte "));
  EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1);
  for (int i = 0; i < 20; ++i) world.append("activity.log", "rubbish\n");
  result = world.run({"log"});
  EXPECT_THAT(result.errors, HasSubstr("quill: and 16 more lines that can't be read\n"));
  EXPECT_EQ(result.errors.find('\x1b'), std::string::npos);
}

TEST_F(Log, followsThroughRotationUntilItIsEnough) {
  world.append("activity.log", numbered(0) + numbered(1));
  int turn = 0;
  world.whileWaiting = [&] {
    switch (++turn) {
      case 1: world.append("activity.log", numbered(2) + "{\"torn"); return true;
      case 2: return true;
      case 3:
        std::filesystem::rename(path("activity.log"), path("activity-20260301-090000.000-0001.log"));
        world.append("activity.log", numbered(3));
        return true;
      default: return false;
    }
  };
  const Result result = world.run({"log", "--follow", "-n", "1"});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(numbersIn(result.output), range(1, 4));
  EXPECT_THAT(result.errors, IsEmpty()) << "a line that isn't finished is none yet";
}

TEST_F(Log, tellsWhenRecordsMayBeMissing) {
  world.append("activity.log", numbered(0));
  int turn = 0;
  world.whileWaiting = [&] {
    if (++turn > 1) return false;
    std::filesystem::rename(path("activity.log"), path("elsewhere"));
    world.append("activity.log", numbered(7));
    return true;
  };
  const Result result = world.run({"log", "--follow"});
  EXPECT_EQ(numbersIn(result.output), (std::vector<int>{0, 7}));
  EXPECT_THAT(result.errors, HasSubstr("rotated past the place that was read last"));
}

TEST_F(Log, aCursorFileShowsWhatIsNew) {
  const std::string cursor = world.posix.root() + "/seen";
  world.append("activity.log", numbered(0));
  EXPECT_EQ(numbersIn(world.run({"log", "--cursor", cursor}).output), range(0, 1));
  EXPECT_THAT(world.run({"log", "--cursor", cursor}).output, IsEmpty());
  world.append("activity.log", numbered(1) + numbered(2));
  EXPECT_EQ(numbersIn(world.run({"log", "-n", "1", "--cursor", cursor}).output), range(2, 3));
  EXPECT_THAT(world.run({"log", "--cursor", cursor}).output, IsEmpty());
  const std::string letter = world.paths.sharedDirectory + "/letter";
  world.append("letter", "Dear Ida\n");
  const Result refused = world.run({"log", "--cursor", letter});
  EXPECT_EQ(refused.exitCode, exitWrongUse);
  EXPECT_EQ(std::filesystem::file_size(letter), 9u);
}

TEST_F(Log, saysWhatIsWrongWhenThereIsNothingToRead) {
  EXPECT_EQ(world.run({"log"}).output, "");
  world.terminal.outputIsTerminal = true;
  EXPECT_EQ(world.run({"log"}).output, "Nothing was recorded yet.\n");
  world.append("activity.log", numbered(0));
  EXPECT_EQ(world.run({"log", "--failed"}).output, "Nothing of that kind was recorded.\n");
  std::filesystem::permissions(path("activity.log"), std::filesystem::perms::none);
  std::filesystem::rename(path("activity.log"), path("aside"));
  std::filesystem::create_directory_symlink("aside", path("activity.log"));
  EXPECT_EQ(world.run({"log", "--failed"}).output, "Nothing of that kind was recorded.\n") << "no regular file, no log";
}

TEST_F(Log, aFailedReadIsAFailure) {
  world.append("activity.log", numbered(0));
  sim::FaultPlan plan;
  plan.fault = sim::Fault::fail;
  plan.atCall = 1;
  plan.only = sim::PosixCall::read;
  world.posix.setPlan(plan);
  const Result result = world.run({"log"});
  EXPECT_EQ(result.exitCode, exitFailed);
  EXPECT_THAT(result.errors,
              AllOf(StartsWith("quill: The activity log can't be read: "), HasSubstr("Input/output error")));
}

TEST_F(Log, momentsAreMeantInThePersonsZone) {
  world.simulation.setTimeZone("Europe/Berlin");
  // The clocks go forward on 2026-03-29 at 02:00.
  world.append("activity.log", lineOf([] {
                 HelperEvent event = eventOf(HelperEvent::Kind::createSnapshot, 0, "number 1");
                 event.timestamp = *parseIso8601("2026-03-29T01:30:00Z");
                 return event;
               }()));
  const std::pair<const char*, bool> cases[] = {
      {"2026-03-29 03:30", true},     {"2026-03-29 03:30:01", false},  {"2026-03-29", true},
      {"2026-03-29T01:30:00Z", true}, {"2026-03-29T01:30:01Z", false}, {"2026-03-29T03:30:00+02:00", true}};
  for (const auto& [since, shown] : cases)
    EXPECT_EQ(!world.run({"log", "--since", since}).output.empty(), shown) << since;
}

}  // namespace
}  // namespace quillmark::cli
