#include <cerrno>
#include <filesystem>

#include "JournalMachine.h"
#include "base/Text.h"

namespace quillmark {
namespace {

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

TEST(JSONLinesLog, theTwoInstancesAreWhatTheyAre) {
  const JSONLinesDescription activity = activityLogDescription({});
  EXPECT_EQ(activity.currentPath(), "/var/lib/quillmark/activity.log");
  EXPECT_EQ(activity.rotationBytes, 4'194'304U);
  EXPECT_EQ(activity.retainedArchiveCount, 8);
  EXPECT_EQ(activity.logCategory, "activity");
  EXPECT_EQ(activity.writerQueueLabel(), "com.harrowfern.quillmark.activity-log.writer");
  const JSONLinesDescription notifications = notificationLogDescription({});
  EXPECT_EQ(notifications.currentPath(), "/var/lib/quillmark/notifications.log");
  EXPECT_EQ(notifications.rotationBytes, 1'048'576U);
  EXPECT_EQ(notifications.retainedArchiveCount, 2);
  EXPECT_EQ(notifications.logCategory, "notification-log");
  EXPECT_EQ(notifications.writerQueueLabel(), "com.harrowfern.quillmark.notification-log.writer");
  for (const JSONLinesDescription& log : {activity, notifications}) {
    EXPECT_FALSE(log.isArchive(log.currentFileName));
    EXPECT_TRUE(log.isArchive(log.archivePrefix + "20260314-091502.417-0003.log"));
    EXPECT_FALSE(log.isArchive(log.archivePrefix + "20260314-091502.417-0003.log.gz"));
  }
}

TEST(JSONLinesLog, theFirstAppendMakesAWorldReadableLog) {
  JournalMachine machine;
  const ReadBatch<HelperEvent> before = machine.read();
  EXPECT_THAT(before.records, IsEmpty());
  EXPECT_EQ(before.cursor, std::nullopt);
  EXPECT_EQ(before.error, std::nullopt);
  const HelperEvent event = eventWith("first");
  EXPECT_APPENDED(machine.log()->append(event));
  EXPECT_EQ(machine.contents(), encodeJson(event) + "\n");
  EXPECT_THAT(machine.contents(), HasSubstr(R"("timestamp":"2026-03-14T09:15:02Z")"));
  EXPECT_EQ(machine.posix->lstat(machine.directory())->mode, 0755U);
  EXPECT_EQ(machine.posix->lstat(machine.path())->mode, 0644U);
  EXPECT_THAT(machine.read().records, ElementsAre(event));
}

TEST(JSONLinesLog, rotatesAtExactlyItsSize) {
  const std::uint64_t line = encodeJson(eventWith("1")).size() + 1;
  for (const auto& [limit, archives] : {std::pair{line, 1U}, std::pair{line + 1, 0U}}) {
    JournalMachine machine;
    const auto log = machine.log(limit);
    EXPECT_APPENDED(log->append(eventWith("1")));
    EXPECT_APPENDED(log->append(eventWith("2")));
    EXPECT_THAT(machine.archives(), SizeIs(archives));
    EXPECT_THAT(machine.details(), ElementsAre("1", "2"));
  }
}

TEST(JSONLinesLog, keepsTheNewestArchivesUnderNamesInTheOrderOfTheirAge) {
  JournalMachine machine;
  const auto log = machine.log(1);
  for (int i = 0; i < 9; ++i) EXPECT_APPENDED(log->append(eventWith(std::to_string(i))));
  EXPECT_THAT(machine.archives(), SizeIs(8));
  EXPECT_EQ(machine.archives().front(), "activity-20260314-091502.417-0001.log");
  EXPECT_EQ(machine.posix->lstat(machine.path(machine.archives().front()))->mode, 0644U);
  EXPECT_APPENDED(log->append(eventWith("9")));
  EXPECT_THAT(machine.details(), ElementsAre("1", "2", "3", "4", "5", "6", "7", "8", "9"));
  machine.clock.jumpWall(std::chrono::hours(-48));
  EXPECT_APPENDED(machine.log(1)->append(eventWith("10"))) << "another process, the clock set back";
  EXPECT_THAT(machine.details(), ElementsAre("2", "3", "4", "5", "6", "7", "8", "9", "10"));
}

TEST(JSONLinesLog, aCursorThatCannotBeOfItsFileBeginsAgain) {
  JournalMachine machine;
  EXPECT_APPENDED(machine.log()->append(eventWith("1")));
  const JSONLinesCursor end = *machine.read().cursor;
  for (const JSONLinesCursor& cursor :
       {JSONLinesCursor{end.deviceID, end.inode, end.offset + 1}, JSONLinesCursor{end.deviceID, end.inode, 7},
        JSONLinesCursor{end.deviceID + 1, end.inode, end.offset},
        JSONLinesCursor{end.deviceID, end.inode, ~std::uint64_t{0}}}) {
    const ReadBatch<HelperEvent> batch = machine.read(cursor);
    EXPECT_FALSE(batch.resumedCursor);
    EXPECT_EQ(batch.cursor, end);
    EXPECT_THAT(batch.records, SizeIs(1));
    EXPECT_EQ(batch.skippedCorruptLines, 0);
  }
  EXPECT_EQ(decodeJson<JSONLinesCursor>(encodeJson(end)), end);
}

TEST(JSONLinesLog, aLineIsReadOnceItIsWhole) {
  JournalMachine machine;
  const auto log = machine.log();
  EXPECT_APPENDED(log->append(eventWith("1")));
  const std::string line = encodeJson(eventWith("2"));
  machine.scribble(line.substr(0, 40));
  const ReadBatch<HelperEvent> torn = machine.read();
  EXPECT_THAT(detailsOf(torn.records), ElementsAre("1"));
  EXPECT_EQ(torn.skippedCorruptLines, 0);
  machine.scribble(line.substr(40) + "\n");
  EXPECT_THAT(detailsOf(machine.read(torn.cursor).records), ElementsAre("2"));
  machine.scribble("{\"id\":");
  EXPECT_APPENDED(log->append(eventWith("3")));
  const ReadBatch<HelperEvent> all = machine.read();
  EXPECT_THAT(detailsOf(all.records), ElementsAre("1", "2", "3")) << "a torn tail takes no record with it";
  EXPECT_EQ(all.skippedCorruptLines, 1);
}

TEST(JSONLinesLog, corruptLinesAreCountedLoggedAndPassedOver) {
  const std::string good = encodeJson(eventWith("good"));
  const auto with = [&](std::string_view from, std::string_view to) {
    std::string line = good;
    return line.replace(line.find(from), from.size(), to);
  };
  struct Case {
    std::string line;
    std::int64_t skipped;
  };
  const std::vector<Case> cases{{"", 0},
                                {good, 0},
                                {" ", 1},
                                {"null", 1},
                                {std::string("\0\xFF\x01", 3), 1},
                                {good.substr(1), 1},
                                {good + good, 1},
                                {std::string(5000, '['), 1},
                                {std::string(maxJSONLineBytes, ' '), 1},
                                {with("createSnapshot", "createSnapshots"), 1},
                                {with("\"cli\"", "\"CLI\""), 1},
                                {with("\"succeeded\":true,", ""), 1},
                                {with("2026-03-14T09:15:02Z", "2026-03-14"), 1}};
  for (const Case& corrupt : cases) {
    JournalMachine machine;
    const auto log = machine.log(std::uint64_t{1} << 30);
    EXPECT_APPENDED(log->append(eventWith("first")));
    machine.scribble(corrupt.line + "\n");
    EXPECT_APPENDED(log->append(eventWith("last")));
    const ReadBatch<HelperEvent> batch = machine.read();
    EXPECT_EQ(batch.skippedCorruptLines, corrupt.skipped) << corrupt.line.substr(0, 80);
    EXPECT_EQ(batch.records.front(), eventWith("first"));
    EXPECT_EQ(batch.records.back(), eventWith("last"));
    EXPECT_EQ(batch.cursor->offset, machine.contents().size());
    if (corrupt.skipped == 0) continue;
    const std::string place = std::to_string(encodeJson(eventWith("first")).size() + 1);
    ASSERT_THAT(machine.platformLog.entries(), SizeIs(1));
    EXPECT_EQ(machine.platformLog.entries()[0].type, PlatformLogType::error);
    EXPECT_EQ(machine.platformLog.entries()[0].subsystem, "com.harrowfern.quillmark");
    EXPECT_EQ(machine.platformLog.entries()[0].category, "activity");
    EXPECT_THAT(machine.logged()[0],
                StartsWith("skipping corrupt row in " + machine.path() + " at byte " + place + ": "));
  }
}

TEST(JSONLinesLog, linesOfAnyLengthAreReadWhole) {
  JournalMachine machine;
  const auto log = machine.log();
  std::vector<std::string> written;
  for (const std::size_t length : {0U, 1U, 200'000U, 262'144U, 3'000'000U, 2U}) {
    written.emplace_back(length, 'x');
    EXPECT_APPENDED(log->append(eventWith(written.back())));
  }
  EXPECT_EQ(machine.details(), written);
  EXPECT_THAT(textOf(log->append(eventWith(std::string(maxJSONLineBytes, 'x')))), HasSubstr("File too large"));
}

TEST(JSONLinesLog, textThatIsNoTextIsStoredSoThatItCanBeRead) {
  JournalMachine machine;
  EXPECT_APPENDED(
      machine.log()->append(eventWith("a\xFF\nb\0"
                                      "\xF4\xBF\xBF\xBF")));
  EXPECT_TRUE(isValidUtf8(machine.contents()));
  ASSERT_THAT(machine.details(), SizeIs(1));
  EXPECT_THAT(machine.details()[0], StartsWith("a\uFFFD\nb"));
}

// Each step's failure in its own words. Calls are counted per kind over one append that also rotates.
TEST(JSONLinesLog, aFailedAppendSaysWhichStepFailed) {
  using sim::PosixCall;
  struct Case {
    PosixCall call;
    std::uint64_t at;
    std::string text;  // %d the directory, %c the current file
  };
  const std::vector<Case> cases{{PosixCall::open, 3, "open(%c) failed: No space left on device"},
                                {PosixCall::fchmod, 1, "fchmod(%c) failed: No space left on device"},
                                {PosixCall::write, 1, "write(%c) failed: No space left on device"},
                                {PosixCall::fsync, 2, "fsync(%d) failed: No space left on device"},
                                {PosixCall::fsync, 3, "fsync(%c) failed: No space left on device"},
                                {PosixCall::fsync, 4, "fsync(%d) failed: No space left on device"},
                                {PosixCall::rename, 1,
                                 "rename(%c → %d/activity-20260314-091502.417-0001.log) failed: "
                                 "No space left on device"}};
  for (const Case& failing : cases) {
    JournalMachine machine;
    EXPECT_APPENDED(machine.log()->append(eventWith("1")));
    const auto log = machine.log(1);
    machine.posix->setPlan({.fault = sim::Fault::fail, .atCall = failing.at, .only = failing.call, .error = ENOSPC});
    std::string text = failing.text;
    for (auto at = text.find('%'); at != std::string::npos; at = text.find('%')) {
      text.replace(at, 2, text[at + 1] == 'd' ? machine.directory() : machine.path());
    }
    const std::optional<Error> error = log->append(eventWith("2"));
    ASSERT_EQ(textOf(error), text);
    EXPECT_EQ(error->domain(), "Quillmark.JSONLinesLog");
    EXPECT_EQ(error->code(), ENOSPC);
    EXPECT_THAT(machine.logged(), ElementsAre("append failed: " + text));
    EXPECT_APPENDED(log->append(eventWith("3")));
    EXPECT_EQ(machine.details().back(), "3");
  }
}

TEST(JSONLinesLog, interruptionsAndSideIssuesDoNotFailAnAppend) {
  using sim::PosixCall;
  struct Case {
    PosixCall call;
    int error;
    std::string logged;
  };
  for (const Case& trouble : {Case{PosixCall::write, EINTR, ""}, Case{PosixCall::list, EIO, ""},
                              Case{PosixCall::chmod, EPERM, ") failed: Operation not permitted"},
                              Case{PosixCall::unlink, EPERM, ": Operation not permitted"}}) {
    JournalMachine machine;
    const auto log = machine.log(machine.shape(1, 1));
    for (const char* detail : {"1", "2"}) EXPECT_APPENDED(log->append(eventWith(detail)));
    machine.posix->setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = trouble.call, .error = trouble.error});
    EXPECT_APPENDED(log->append(eventWith("3")));
    EXPECT_TRUE(machine.posix->faultFired()) << nameOf(trouble.call);
    machine.posix->setPlan({});
    EXPECT_EQ(machine.details().back(), "3");
    EXPECT_THAT(machine.logged(), SizeIs(trouble.logged.empty() ? 0 : 1));
    for (const std::string& line : machine.logged()) EXPECT_THAT(line, EndsWith(trouble.logged));
    EXPECT_APPENDED(log->append(eventWith("4")));
    EXPECT_THAT(machine.details(), ElementsAre("3", "4")) << "what a prune left goes at the next one";
  }
}

TEST(JSONLinesLog, aTailThatCannotBeSeenCountsAsTorn) {
  for (const sim::PosixCall call : {sim::PosixCall::fstat, sim::PosixCall::read}) {
    JournalMachine machine;
    const auto log = machine.log();
    EXPECT_APPENDED(log->append(eventWith("1")));
    machine.scribble("{");
    machine.posix->setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = call, .error = EIO});
    EXPECT_APPENDED(log->append(eventWith("2")));
    EXPECT_TRUE(machine.posix->faultFired());
    machine.posix->setPlan({});
    EXPECT_THAT(machine.details(), ElementsAre("1", "2"));
  }
}

TEST(JSONLinesLog, aReadThatFailsGivesNothingButItsReason) {
  JournalMachine machine;
  EXPECT_APPENDED(machine.log()->append(eventWith("1")));
  const JSONLinesCursor cursor = *machine.read().cursor;
  for (const sim::PosixCall call : {sim::PosixCall::open, sim::PosixCall::read, sim::PosixCall::list}) {
    machine.posix->setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = call, .error = EIO});
    const ReadBatch<HelperEvent> batch = machine.read(cursor);
    ASSERT_TRUE(batch.error) << nameOf(call);
    EXPECT_THAT(*batch.error, EndsWith(") failed: Input/output error"));
    EXPECT_EQ(batch.cursor, std::nullopt);
    EXPECT_FALSE(batch.resumedCursor);
    EXPECT_THAT(batch.records, IsEmpty());
    EXPECT_EQ(machine.logged().back(), "readSince failed: " + *batch.error);
  }
}

TEST(JSONLinesLog, nothingButRegularFilesIsReadOrWritten) {
  JournalMachine machine;
  EXPECT_APPENDED(machine.log()->append(eventWith("1")));
  const std::string elsewhere = machine.posix->root() + "/elsewhere";
  std::filesystem::rename(machine.path(), elsewhere);
  std::filesystem::create_symlink(elsewhere, machine.path());
  std::filesystem::create_symlink(elsewhere, machine.path("activity-link.log"));
  std::filesystem::create_directory(machine.path("activity-directory.log"));
  EXPECT_THAT(textOf(machine.log()->append(eventWith("2"))), StartsWith("open(" + machine.path() + ") failed: "));
  EXPECT_EQ(std::filesystem::file_size(elsewhere), encodeJson(eventWith("1")).size() + 1);
  EXPECT_THAT(machine.read().records, IsEmpty());
  EXPECT_EQ(machine.read().error, std::nullopt);
}

}  // namespace
}  // namespace quillmark
