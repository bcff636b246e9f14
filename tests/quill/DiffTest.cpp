#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "QuillWorld.h"
#include "quill/DiffText.h"
#include "quill/Failures.h"
#include "quill/Pager.h"
#include "wire/DiffResult.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

using Kind = DiffResult::ChangeKind;
using Type = DiffResult::EntryType;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

// One row of each kind, with names that a terminal must not obey.
DiffResult oneOfEach() {
  DiffResult result{.volumeUUID = dataUUID, .xidA = {100}, .xidB = {200}};
  // Path, kind and type; the sizes before and after, then the times.
  result.rows = {{"/a new\nfile", Kind::added, Type::file, {}, 2048, {}, 5},
                 {"/docs", Kind::modified, Type::directory, 0, 0, 1, 2},
                 {"/gone", Kind::deleted, Type::file, 10, {}, 3},
                 {"/grown", Kind::modified, Type::file, 10, 1034, 3, 4},
                 {"/new place", Kind::moved, Type::file, 7, 7, 3, 3, "/old place"},
                 {"/odd", Kind::replaced, Type::symlink, 9, 0, 3, 6}};
  result.totalRowCount = 6;
  return result;
}

class DiffWorld : public QuillWorld {
 public:
  DiffWorld() {
    snapshots[0].isIndexed = true;
    snapshots[1].isIndexed = true;
    helper.on<DiffSnapshots>([&](const DiffSnapshots& call) {
      asked = call;
      const std::string path = posix.root() + "/result.qmdiff";
      std::ofstream file(path, std::ios::binary);
      writeDiffResult(result, [&](std::string_view piece) { file << piece; });
      return RpcReply{jsonString(leavesFile ? path : path + ".gone"), {}};
    });
    helper.on<CompareSubtree>([&](const CompareSubtree& call) {
      askedSubtree = call;
      return RpcReply{encodeDiffResult(result), {}};
    });
    helper.on<CompareLocalPaths>([&](const CompareLocalPaths& call) {
      askedLocal = call;
      return RpcReply{encodeDiffResult(result), {}};
    });
  }
  DiffResult result = oneOfEach();
  bool leavesFile = true;
  DiffSnapshots asked;
  CompareSubtree askedSubtree;
  CompareLocalPaths askedLocal;
};

TEST(Diff, printsEightWordsARowWhereNoTerminalShowsIt) {
  DiffWorld world;
  const Result shown = world.run({"diff", "latest", "first"});
  EXPECT_EQ(shown.exitCode, exitDone) << shown.errors;
  EXPECT_EQ(shown.output, R"(added file /a\x20new\x0afile - - 2048 - 5
modified directory /docs - 0 0 1 2
deleted file /gone - 10 - 3 -
modified file /grown - 10 1034 3 4
moved file /new\x20place /old\x20place 7 7 3 3
replaced symlink /odd - 9 0 3 6
)");
  EXPECT_EQ(world.asked.xidA, 100U) << "the older one is before, however it was asked";
  EXPECT_EQ(world.asked.xidB, 200U);
  EXPECT_EQ(world.asked.nameA, world.snapshots[1].name);
  EXPECT_FALSE(world.asked.includeTree || world.asked.ignoreExclusions);
  EXPECT_EQ(world.timesPaged, 0);
}

TEST(Diff, showsSignsColoursAndSizesOnATerminalAndPagesThem) {
  DiffWorld world;
  world.terminal = {.outputIsTerminal = true, .obeysEscapes = true, .wantsColor = true, .columns = 40};
  EXPECT_EQ(world.run({"diff", "100", "200", "--no-color"}).output, R"(+ /a new\x0afile  (2.0 KiB)
~ /docs/
- /gone  (10 B)
~ /grown  (10 B → 1.0 KiB)
> /old place → /new place  (7 B)
↻ /odd
)");
  EXPECT_EQ(world.timesPaged, 1);
  EXPECT_THAT(world.run({"diff", "100", "200"}).output, HasSubstr("\x1b[31m- /gone\x1b[0m  (10 B)\n"));
  world.result.rows.clear();
  EXPECT_EQ(world.run({"diff", "100", "200"}).output, "No changes.\n");
  EXPECT_EQ(world.timesPaged, 2);
}

TEST(Diff, keepsToWhatIsAskedFor) {
  DiffWorld world;
  EXPECT_EQ(world.run({"diff", "100", "200", "--name-only", "--kind", "deleted,moved"}).output,
            "/gone\n/new\\x20place\n");
  EXPECT_EQ(world.run({"diff", "100", "200", "--stat"}).output,
            "added 1 2048\ndeleted 1 -10\nmodified 2 1024\nreplaced 1 0\nmoved 1 0\n");
  EXPECT_EQ(
      world.run({"diff", "100", "200", "--stat", "--json"}).output,
      R"({"added":{"count":1,"bytes":2048},"deleted":{"count":1,"bytes":-10},"modified":{"count":2,"bytes":1024},)"
      R"("replaced":{"count":1,"bytes":0},"moved":{"count":1,"bytes":0},"truncated":false,"totalRowCount":6})"
      "\n");
  EXPECT_EQ(decodeDiffResult(world.run({"diff", "100", "200", "--json"}).output), world.result);
  world.result.rows.resize(1);
  world.result.rows[0].path = "/b";
  world.result.treeEntries = {{"/", Type::directory, 0}, {"/a", Type::file, 3}, {"/b", Type::file, 2048}};
  EXPECT_EQ(world.run({"diff", "100", "200", "--tree", "--full-scan"}).output,
            "same directory / - 0 0 - -\nsame file /a - 3 3 - -\nadded file /b - - 2048 - 5\n");
  EXPECT_TRUE(world.asked.includeTree && world.asked.ignoreExclusions);
  world.result.truncated = true;
  world.result.totalRowCount = 250'001;
  EXPECT_THAT(world.run({"diff", "100", "200"}).errors, HasSubstr("the first 1 of 250001 or more"));
}

TEST(Diff, asksAboutAFolderByItsPlaceOnTheVolume) {
  DiffWorld world;
  EXPECT_EQ(world.run({"diff", "100", "200", "--subtree", "/mnt/data/docs"}).exitCode, exitDone);
  EXPECT_EQ(world.askedSubtree.path, "/docs");
  (void)world.run({"diff", "100", "200", "--subtree", "/mnt/data"});
  EXPECT_EQ(world.askedSubtree.path, "/");
  const Result elsewhere = world.run({"diff", "100", "200", "--subtree", "/mnt/database"});
  EXPECT_EQ(elsewhere.exitCode, exitWrongUse);
  EXPECT_THAT(elsewhere.errors, HasSubstr("\"/mnt/database\" isn't on this volume, which is mounted at /mnt/data."));
  world.snapshots[0].isIndexed = false;
  EXPECT_THAT(world.run({"diff", "100", "200", "--subtree", "/mnt/data"}).errors, HasSubstr("second\" isn't indexed"));
}

TEST(Diff, comparesPathsOfThisMachine) {
  DiffWorld world;
  world.volumes.mounts = {"/", "/mnt/data", "/Volumes/Data-x@snap-100"};
  EXPECT_EQ(world.run({"diff", "--local", "/Volumes/Data-x@snap-100/docs", "docs"}).exitCode, exitDone);
  EXPECT_EQ(world.askedLocal.pathA, "/Volumes/Data-x@snap-100/docs");
  EXPECT_EQ(world.askedLocal.pathB, "/here/docs");
  EXPECT_EQ(world.askedLocal.subtreePath, "/docs");
  EXPECT_TRUE(world.askedLocal.applyExclusions);
  (void)world.run({"diff", "--local", "--full-scan", "/a", "/b"});
  EXPECT_FALSE(world.askedLocal.applyExclusions);
}

TEST(Diff, saysInPlainWordsWhatIsWrong) {
  DiffWorld world;
  const std::pair<std::vector<std::string>, const char*> table[] = {
      {{"diff", "100"}, "Name two snapshots to compare."},
      {{"diff", "100", "200", "--kind", "lost"}, "There is no kind of change \"lost\"."},
      {{"diff", "100", "200", "--tree", "--stat"}, "excludes"},
      {{"diff", "100", "200", "--full-scan", "--subtree", "/"}, "--subtree goes by the index"},
      {{"diff", "--local", "-v", "Data", "/a", "/b"}, "no volume goes with --local"},
  };
  for (const auto& [words, text] : table) {
    const Result failed = world.run(words);
    EXPECT_EQ(failed.exitCode, exitWrongUse) << text;
    EXPECT_THAT(failed.errors, HasSubstr(text));
  }
  EXPECT_TRUE(world.helper.calls.empty());
  EXPECT_EQ(world.run({"diff", "100", "300"}).exitCode, exitFailed);
  world.leavesFile = false;
  EXPECT_THAT(world.run({"diff", "100", "200"}).errors, HasSubstr("its result is gone already.\nAsk once more."));
}

// Goal:   what is printed while there is a pager goes to it, and what is printed later doesn't.
// Method: in a child, whose output is a file and whose pager notes what it got.
TEST(Diff, pagesThroughTheProgramOfThePersonsChoice) {
  sim::SimPosix files;
  const std::string output = files.root() + "/output", paged = files.root() + "/paged";
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (!std::freopen(output.c_str(), "w", stdout)) ::_exit(2);
    auto pager = startPager({.program = fmt::format("{{ echo \"[$LESS]\"; cat; }} >{}", paged), .options = {}});
    if (!pager || startPager({.program = "", .options = {}}) || startPager({.program = "cat", .options = {}}))
      ::_exit(3);
    (void)!::write(STDOUT_FILENO, "inside\n", 7);
    pager.reset();
    (void)!::write(STDOUT_FILENO, "after\n", 6);
    ::_exit(::getenv("LESS") ? 4 : 0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  const auto text = [](const std::string& path) {
    std::ifstream file(path);
    return std::string(std::istreambuf_iterator<char>(file), {});
  };
  EXPECT_EQ(text(paged), "[FRX]\ninside\n");
  EXPECT_EQ(text(output), "after\n");
}

}  // namespace
}  // namespace quillmark::cli
