#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/FunctionRef.h"
#include "base/HelperLog.h"
#include "platform/sim/SimThreadIdentity.h"
#include "platform/sim/Simulation.h"
#include "snapshots/PeerAuthorization.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Lines final : public HelperLog {
 public:
  std::vector<std::string> lines;

 private:
  void emit(LogLevel, std::string_view message, CodeLocation) override { lines.emplace_back(message); }
};

constexpr std::chrono::hours never{24 * 365};

struct Rights {
  sim::Simulation simulation;
  sim::Life& life = simulation.startLife("helper");
  sim::SimThreadIdentity identities{life.dispatch()};
  Lines log;
  PeerAuthorization authorization{life.dispatch(), identities, log};
  const PeerUser anna{1000};

  Rights() {
    identities.mount("/");
    identities.mount("/data");
    identities.mount("/net");
    identities.addUser({1000, 100, {100, 27}});
  }
  Verdict check(Asked asked, const std::string& path, PeerUser user = {1000}, std::chrono::seconds timeout = 10s) {
    Verdict verdict = Verdict::denied;
    simulation.run(life, [&] { verdict = authorization.check(asked, path, user, timeout); });
    return verdict;
  }
  Verdict reads(const std::string& path, PeerUser user = {1000}) {
    return check(Asked::mayRead, path, std::move(user));
  }
  // What a refusal says; empty when there is none.
  std::string said(FunctionRef<void()> work) {
    std::string text;
    simulation.run(life, [&] {
      try {
        work();
      } catch (const Error& error) {
        text = error.description();
        EXPECT_EQ(QuillmarkError::codeOf(error), QuillmarkErrorCode::insufficientPrivileges);
      }
    });
    return text;
  }
  void hangs(const std::string& path) { identities.put(path, {.access = never}); }
  // So many questions at the same time.
  std::vector<Verdict> atOnce(int count, const std::string& path, std::chrono::seconds timeout) {
    std::vector<Verdict> verdicts(static_cast<std::size_t>(count), Verdict::denied);
    simulation.run(life, [&] {
      Group group(life.dispatch());
      for (Verdict& verdict : verdicts) {
        group.enter();
        life.dispatch().global(QualityOfService::utility)->async([&] {
          verdict = authorization.check(Asked::mayRead, path, anna, timeout);
          group.leave();
        });
      }
      group.wait();
    });
    return verdicts;
  }
};

TEST(PeerAuthorization, asksNothingForRootAndNothingOfRelativePaths) {
  Rights rights;
  for (const char* path : {"", "relative", "/no/such/item"})
    EXPECT_EQ(rights.reads(path, {0}), Verdict::allowed) << path;
  for (const char* path : {"", "relative", "./x"}) EXPECT_EQ(rights.reads(path), Verdict::denied) << path;
  EXPECT_EQ(rights.identities.calls(), 0);
}

TEST(PeerAuthorization, asksTheNearestThatExistsWithTheRightMode) {
  Rights rights;
  std::vector<std::pair<std::string, unsigned>> asked;
  std::vector<UserIdentity> as;
  const auto item = [&](const std::string& path) {
    rights.identities.put(path, {.allows = [&, path](const UserIdentity& identity, unsigned mode) {
                            asked.emplace_back(path, mode);
                            as.push_back(identity);
                            return true;
                          }});
  };
  item("/data");
  item("/data/a");
  EXPECT_EQ(rights.reads("/data/a"), Verdict::allowed);
  EXPECT_EQ(rights.reads("/data/gone/too"), Verdict::allowed);
  EXPECT_EQ(rights.check(Asked::mayCreate, "/data/a"), Verdict::allowed);
  EXPECT_EQ(rights.check(Asked::mayCreate, "/data/a/b/c/"), Verdict::allowed);
  EXPECT_THAT(asked, ElementsAre(std::pair("/data/a", 4u), std::pair("/data", 5u), std::pair("/data", 3u),
                                 std::pair("/data/a", 3u)));
  EXPECT_THAT(as[0].groups, ElementsAre(100, 27));
  EXPECT_EQ(as[0].gid, 100u);

  as.clear();
  EXPECT_EQ(rights.reads("/data/a", {1000, std::vector<std::uint32_t>{44}}), Verdict::allowed);
  EXPECT_EQ(rights.reads("/data/a", {1001}), Verdict::allowed);
  EXPECT_THAT(as[0].groups, ElementsAre(44)) << "the groups of the connection count before the database's";
  EXPECT_EQ(as[1].gid, 65534u) << "a user whom nobody knows has nobody's group";
  EXPECT_THAT(as[1].groups, IsEmpty());
  EXPECT_EQ(rights.identities.openNow(), 0);
}

// Goal:   a question is asked of the volume that the item lies on, however the path leads there: a link to a volume that
//         hangs fences that one and costs the volume that holds the link nothing.
TEST(PeerAuthorization, followsLinksFromVolumeToVolume) {
  Rights rights;
  rights.identities.put("/net/x/deep", {});
  rights.identities.put("/data/d/real/item", {});
  rights.identities.putLink("/data/far", "/net/x");
  rights.identities.putLink("/data/d/near", "./real");
  rights.identities.putLink("/data/d/up", "../../../data/d/real/..");
  rights.identities.putLink("/data/round", "d/../round");
  rights.identities.putLink("/data/dangling", "/nowhere/at/all");
  EXPECT_EQ(rights.reads("/data/d/near/item"), Verdict::allowed);
  EXPECT_EQ(rights.reads("/data/d/up/real/./item"), Verdict::allowed);
  EXPECT_EQ(rights.reads("/data/far/deep"), Verdict::allowed);
  EXPECT_EQ(rights.reads("/data/far/missing"), Verdict::allowed) << "in a directory that may be read";
  for (const char* path : {"/data/round", "/data/dangling", "/data/dangling/x"}) {
    EXPECT_EQ(rights.reads(path), Verdict::denied) << path;
  }
  rights.simulation.run(rights.life, [&] {
    const auto found = rights.authorization.find("/data/far", rights.anna, 10s);
    ASSERT_TRUE(found.item);
    EXPECT_EQ(rights.identities.pathOf(found.item->fd()), "/data/far") << "what is read is the link itself";
    EXPECT_EQ(rights.authorization.find("/data/gone", rights.anna, 10s).item, nullptr);
  });
  EXPECT_EQ(rights.identities.openNow(), 0);

  rights.identities.put("/net/x/deep", {.lookup = never});
  EXPECT_EQ(rights.reads("/data/far/deep"), Verdict::unresponsive);
  EXPECT_THAT(rights.log.lines, ElementsAre(HasSubstr("check on /net did not answer")));
  EXPECT_EQ(rights.reads("/data/d/near/item"), Verdict::allowed);
  EXPECT_EQ(rights.reads("/data/far/deep"), Verdict::unresponsive);
  EXPECT_THAT(rights.log.lines, testing::SizeIs(1));
}

TEST(PeerAuthorization, refusesWhateverDoesNotReachAClearYes) {
  Rights rights;
  rights.identities.put("/data/yes", {});
  rights.identities.put("/data/no", {.allows = [](const UserIdentity&, unsigned) { return false; }});
  EXPECT_EQ(rights.reads("/data/no"), Verdict::denied);
  rights.identities.lookupError = EIO;
  EXPECT_EQ(rights.reads("/data/yes"), Verdict::denied);
  rights.identities.lookupError = 0;
  rights.identities.assumeError = EPERM;
  EXPECT_EQ(rights.reads("/data"), Verdict::denied);
  rights.identities.assumeError = 0;
  EXPECT_EQ(rights.reads("/data"), Verdict::allowed);
  EXPECT_THAT(rights.log.lines, IsEmpty());
}

TEST(PeerAuthorization, fencesAVolumeThatDoesNotAnswerAndNoOther) {
  Rights rights;
  rights.hangs("/net/x");
  EXPECT_THAT(rights.atOnce(2, "/net/x", 10s), ElementsAre(Verdict::unresponsive, Verdict::unresponsive));
  EXPECT_THAT(
      rights.log.lines,
      ElementsAre("permission check on /net did not answer within 10s; treating that volume as unresponsive for "
                  "300s. Operations there will be refused until it answers or is remounted."))
      << "the second one extends the fence without a word";
  const int calls = rights.identities.calls();
  EXPECT_EQ(rights.reads("/net/x"), Verdict::unresponsive);
  EXPECT_EQ(rights.identities.calls(), calls) << "no thread is started for a fenced volume";
  EXPECT_EQ(rights.reads("/data"), Verdict::allowed);

  rights.simulation.runFor(40s);
  rights.log.lines.clear();
  rights.simulation.run(rights.life, [&] { rights.authorization.volumeRemounted("/net"); });
  EXPECT_THAT(rights.log.lines, ElementsAre("permission checks on /net un-fenced after 40s (volume remounted); 1 "
                                            "request(s) were refused while it was unresponsive"));
}

TEST(PeerAuthorization, aFenceLapsesWithoutAWordAndForgetsItsCount) {
  Rights rights;
  rights.hangs("/net/x");
  EXPECT_EQ(rights.reads("/net/x"), Verdict::unresponsive);
  EXPECT_EQ(rights.reads("/net/x"), Verdict::unresponsive);
  rights.log.lines.clear();
  rights.simulation.runFor(300s);
  rights.identities.put("/net/y", {});
  EXPECT_EQ(rights.reads("/net/y"), Verdict::allowed);
  EXPECT_THAT(rights.log.lines, IsEmpty());
  rights.simulation.run(rights.life, [&] { rights.authorization.volumeRemounted("/net"); });
  EXPECT_THAT(rights.log.lines, IsEmpty());
}

TEST(PeerAuthorization, aFourfoldHungVolumeRefusesAfterTwoSecondsAndComesBackWithItsThreads) {
  Rights rights;
  rights.identities.put("/net/slow", {.access = 400s});
  EXPECT_THAT(rights.atOnce(4, "/net/slow", 10s), testing::Each(Verdict::unresponsive));
  rights.simulation.runFor(300s);  // the fence has lapsed, the threads still hang
  rights.log.lines.clear();
  rights.identities.put("/net/y", {});
  const MonotonicTime begun = rights.life.clock().monotonic();
  EXPECT_EQ(rights.reads("/net/y"), Verdict::unresponsive);
  EXPECT_EQ(rights.life.clock().monotonic() - begun, 2s);
  EXPECT_THAT(rights.log.lines,
              ElementsAre("permission checks on /net are saturated (4 in flight and none freed within "
                          "2s); refusing the request"));
  EXPECT_EQ(rights.reads("/data"), Verdict::allowed);
  rights.simulation.runFor(100s);
  EXPECT_EQ(rights.reads("/net/y"), Verdict::allowed) << "no fence was set, and the slots are back";
}

TEST(PeerAuthorization, oneBeginsWhenASlotComesFreeInTime) {
  Rights rights;
  rights.identities.put("/net/slow", {.access = 1s});
  EXPECT_THAT(rights.atOnce(8, "/net/slow", 10s), testing::Each(Verdict::allowed));
  EXPECT_THAT(rights.atOnce(64, "/net/slow", 10s), testing::Contains(Verdict::unresponsive));
}

TEST(PeerAuthorization, tellsOnlyTheSlowestYet) {
  Rights rights;
  const auto take = [&](std::chrono::milliseconds lookup, std::chrono::milliseconds access) {
    rights.log.lines.clear();
    rights.identities.put("/net/x", {.lookup = lookup, .access = access});
    EXPECT_EQ(rights.reads("/net/x"), Verdict::allowed);
    return rights.log.lines;
  };
  EXPECT_THAT(take(0ms, 999ms), IsEmpty());
  EXPECT_THAT(take(500ms, 1700ms),
              ElementsAre("slow permission check on /net: 2200ms total (ancestor lookup 500ms, access check 1700ms). "
                          "Healthy volumes answer in well under a millisecond."));
  EXPECT_THAT(take(0ms, 2000ms), IsEmpty());
  EXPECT_THAT(take(0ms, 2500ms), testing::SizeIs(1));
}

TEST(PeerAuthorization, speaksToTheUser) {
  Rights rights;
  rights.hangs("/net/x");
  const auto said = [&](const std::string& path) {
    return rights.said([&] { rights.authorization.authorize(Asked::mayRead, path, rights.anna, "browse it", 10s); });
  };
  EXPECT_EQ(said("x"), "You do not have permission to browse it at x.");
  EXPECT_EQ(said("/net/x"),
            "The disk holding /net/x stopped responding, so Quillmark could not confirm your permission to browse it "
            "there. This is usually a network volume that has gone away. Reconnect it, or eject it, and try again.");
  EXPECT_EQ(said("/data"), "");
}

TEST(PeerAuthorization, judgesTheOpenDirectoryAndLeavesNoDescriptorBehind) {
  Rights rights;
  const auto said = [&](int fd, const std::string& path) {
    return rights.said(
        [&] { rights.authorization.authorizeOpenDirectory(fd, path, rights.anna, "replace this item", 60s); });
  };
  rights.identities.open(3, {.allows = [](const UserIdentity&, unsigned mode) { return mode == 3; }});
  rights.identities.open(4, {.allows = [](const UserIdentity&, unsigned) { return false; }});
  rights.identities.open(5, {.access = never});
  EXPECT_EQ(said(3, "/data/a"), "");
  const std::string changed =
      "You do not have permission to replace this item at /data/a. The location changed after the "
      "operation was authorized; nothing was written.";
  EXPECT_EQ(said(4, "/data/a"), changed);
  rights.identities.duplicateError = EMFILE;
  EXPECT_EQ(said(3, "/data/a"), changed);
  rights.identities.duplicateError = 0;
  EXPECT_EQ(said(3, "/data/a"), "") << "the slot came back";
  EXPECT_EQ(rights.identities.openNow(), 0);
  EXPECT_EQ(said(5, "/net/a"),
            "The disk holding /net/a stopped responding, so Quillmark could not confirm your "
            "permission to replace this item there.");
  EXPECT_EQ(rights.identities.openNow(), 1) << "the thread that hangs keeps its own";
}

}  // namespace
}  // namespace quillmark
