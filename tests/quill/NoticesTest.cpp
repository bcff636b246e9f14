#include "QuillWorld.h"
#include "journal/HelperNotification.h"
#include "quill/Failures.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;

HelperNotification noticeAt(int minute, const std::string& title) {
  return {.id = "0F0E0D0C-0000-4000-8000-000000000001",
          .timestamp = Date::from1970(1'772'355'600 + minute * 60),
          .title = title,
          .message = "Look\x1b[2J at it.",
          .category = NotificationCategory::failure,
          .volumeUUID = dataUUID,
          .volumeName = "Data"};
}

class Notices : public testing::Test {
 protected:
  void append(const HelperNotification& notice) { world.append("notifications.log", encodeJson(notice) + "\n"); }
  std::string line(const std::string& time, const std::string& words) const {
    return "2026-03-01T" + time + ":00+00:00 " + words + " Look\\x1b[2J\\x20at\\x20it.\n";
  }

  QuillWorld world;
};

TEST_F(Notices, arePrintedWholeForProgramsAndShortForPeople) {
  append(noticeAt(0, "It failed"));
  HelperNotification over = noticeAt(1, "It is over");
  over.kind = HelperNotification::Kind::resolve;
  over.category = NotificationCategory::success;
  over.volumeName.reset();
  over.volumeUUID.reset();
  append(over);
  const Result result = world.run({"notices"});
  EXPECT_EQ(result.exitCode, 0) << result.errors;
  EXPECT_EQ(result.output, line("09:00", "post failure normal Data " + dataUUID + " It\\x20failed") +
                               line("09:01", "resolve success normal - - It\\x20is\\x20over"));
  const std::string json = world.run({"notices", "--json", "-n", "1"}).output;
  EXPECT_EQ(decodeJson<HelperNotification>(json), over);
  world.terminal.outputIsTerminal = true;
  EXPECT_THAT(world.run({"notices"}).output, HasSubstr("It failed\n  Look\\x1b[2J at it.\n2026-03-01 09:01:00"));
}

TEST_F(Notices, arePickedByVolumeImportanceAndTime) {
  HelperNotification elsewhere = noticeAt(5, "elsewhere");
  elsewhere.volumeUUID = homeUUID;
  elsewhere.volumeName = "home";
  elsewhere.importance = NotificationImportance::critical;
  append(noticeAt(0, "here"));
  append(elsewhere);
  const std::string here = world.run({"notices", "-v", "Data"}).output;
  EXPECT_THAT(here, HasSubstr(" here "));
  EXPECT_EQ(here.find("elsewhere"), std::string::npos);
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"--critical"}, {"-v", "home"}, {"-v", homeUUID}, {"--since", "2026-03-01 09:01"}}) {
    const std::string output = world.run({"notices"}, words).output;
    EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << words[0];
    EXPECT_THAT(output, HasSubstr(" elsewhere "));
  }
  EXPECT_THAT(world.helper.calls, IsEmpty()) << "needs no helper";
}

TEST_F(Notices, areFollowedAndRememberedByCursor) {
  append(noticeAt(0, "first"));
  int turn = 0;
  world.whileWaiting = [&] { return ++turn == 1 && (append(noticeAt(1, "second")), true); };
  const std::string cursor = world.posix.root() + "/seen";
  EXPECT_THAT(world.run({"notices", "--follow", "-n", "0", "--cursor", cursor}).output, HasSubstr(" second "));
  EXPECT_THAT(world.run({"notices", "--cursor", cursor}).output, IsEmpty());
  world.append("notifications.log", "{}\n");
  EXPECT_THAT(world.run({"notices"}).errors, HasSubstr("notifications.log"));
}

}  // namespace
}  // namespace quillmark::cli
