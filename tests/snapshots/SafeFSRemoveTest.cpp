#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "SafeFSWorld.h"

namespace quillmark {
namespace {

using sim::Fault;
using sim::FileWorkCall;

TEST(SafeFSRemove, ALinkGoesAsALinkAndATreeWithAllThatIsInIt) {
  SafeFSWorld world;
  world.makeDirectory("kept/inner");
  world.put("kept/file", "contents");
  world.makeDirectory("tree/a/b/c");
  world.put("tree/a/file");
  std::filesystem::create_hard_link(world.path("kept/file"), world.path("tree/a/hard"));
  world.link("../../kept", "tree/a/link");
  world.link(world.path("kept"), "tree/absolute");
  world.link("kept", "link");
  world.put("tree/\xFF");
  ::mkfifo(world.path("tree/fifo").c_str(), 0600);
  world.put("file");
  const SafeFS::Directory top = world.top();
  for (const char* name : {"tree", "link", "file", "missing"}) world.files.removeTree(name, top);
  EXPECT_EQ(world.tree(), "kept/ kept/file kept/inner/");
  EXPECT_EQ(world.contents("kept/file"), "contents");
  EXPECT_EQ(world.work.openNow(), 1U);
}

// Goal:   whatever call fails, the removal ends, says nothing, leaves no descriptor, and touches nothing but the tree.
TEST(SafeFSRemove, GoesAsFarAsItCan) {
  for (std::uint64_t n = 1;; ++n) {
    ASSERT_LT(n, 200U);
    SafeFSWorld world;
    world.makeDirectory("kept/inner");
    world.makeDirectory("tree/a/b");
    world.put("tree/a/file");
    world.link("../kept", "tree/link");
    const SafeFS::Directory top = world.top();
    world.work.setFault({.fault = Fault::fail, .atCall = n, .error = EACCES});
    world.files.removeTree("tree", top);
    EXPECT_EQ(world.tree("kept"), "inner/");
    EXPECT_EQ(world.work.openNow(), 1U);
    if (world.work.faultFired()) continue;
    EXPECT_EQ(world.tree(), "kept/ kept/inner/");
    return;
  }
}

// A directory with so many more below it, each with a file made before the next level and one made after.
void makeDeep(const SafeFSWorld& world, const std::string& name, int levels, bool files) {
  world.makeDirectory(name);
  int at = ::open(world.path(name).c_str(), O_PATH | O_CLOEXEC);
  for (int level = 0; level < levels; ++level) {
    if (files) ::close(::openat(at, "a", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    ::mkdirat(at, "d", 0700);
    if (files) ::close(::openat(at, "z", O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
    const int next = ::openat(at, "d", O_PATH | O_CLOEXEC);
    ::close(at);
    at = next;
  }
  ::close(at);
}

TEST(SafeFSRemove, ADeepTreeCostsFewDescriptorsAndNoStack) {
  SafeFSWorld world;
  makeDeep(world, "tree", 20'000, true);
  const SafeFS::Directory top = world.top();
  world.work.setFault({});
  world.files.removeTree("tree", top);
  EXPECT_EQ(world.tree(), "");
  EXPECT_LT(world.work.mostOpen(), 60U);
  EXPECT_EQ(world.work.openNow(), 1U);
}

// Goal:   side branches, each deep enough to have all above it closed, cost no more descriptors than one way down.
TEST(SafeFSRemove, ABranchingDeepTreeCostsNoMore) {
  SafeFSWorld world;
  std::string at = "tree";
  makeDeep(world, at, 30, false);
  for (int branch = 0; branch < 12; ++branch) {
    makeDeep(world, at + "/side" + std::to_string(branch), 70, true);
    for (int level = 0; level < 30; ++level) at += "/d";
    makeDeep(world, at, 30, true);
  }
  const SafeFS::Directory top = world.top();
  world.work.setFault({});
  world.files.removeTree("tree", top);
  EXPECT_EQ(world.tree(), "");
  EXPECT_LT(world.work.mostOpen(), 60U);
}

// Goal:   a level that somebody moved or replaced while it was closed is not followed; the rest goes on.
// Method: once the walk is at the bottom, a level half way is exchanged for a link to a tree that must not be touched.
TEST(SafeFSRemove, ALevelReplacedBehindItIsNotFollowed) {
  SafeFSWorld world;
  makeDeep(world, "kept", 400, true);
  makeDeep(world, "tree", 400, true);
  world.put("tree/last");
  std::string half = "tree";
  for (int level = 0; level < 200; ++level) half += "/d";
  const SafeFS::Directory top = world.top();
  bool swapped = false;
  world.work.beforeEach([&](FileWorkCall call) {
    if (swapped || call != FileWorkCall::rmdirat) return;
    swapped = true;
    std::filesystem::rename(world.path(half), world.path("moved"));
    world.link(world.path("kept"), half);
  });
  const std::string before = world.tree("kept");
  world.files.removeTree("tree", top);
  EXPECT_TRUE(swapped);
  EXPECT_EQ(world.tree("kept"), before);
  EXPECT_TRUE(std::filesystem::exists(world.path("moved")));
  EXPECT_FALSE(std::filesystem::exists(world.path("tree/last")));
  EXPECT_EQ(world.work.openNow(), 1U);
}

TEST(SafeFSRemove, AWideDirectoryGoesInPieces) {
  SafeFSWorld world;
  world.makeDirectory("tree/inner");
  for (int i = 0; i < 5000; ++i) world.put("tree/inner/some name " + std::to_string(i));
  const SafeFS::Directory top = world.top();
  world.files.removeTree("tree", top);
  EXPECT_EQ(world.tree(), "");
}

}  // namespace
}  // namespace quillmark
