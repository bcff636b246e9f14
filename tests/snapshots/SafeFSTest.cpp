#include <cerrno>

#include "SafeFSWorld.h"

namespace quillmark {
namespace {

using sim::Fault;
using sim::FileWorkCall;
using testing::IsEmpty;
using testing::Not;

TEST(SafeFS, ANameThatIsMoreOrLessThanOneIsRefusedBeforeAnyCall) {
  SafeFSWorld world;
  const SafeFS::Directory top = world.top();
  world.work.setFault({});
  const SafeFS& files = world.files;
  // The last are the escapes of the bytes "/" and "a", which no name as text holds.
  for (const std::string& name :
       {std::string("a/b"), std::string(".."), std::string("."), std::string(), std::string("a\0b", 3),
        std::string("\xF4\x8E\xBC\xAF"), std::string("\xF4\x8E\xBD\xA1")}) {
    const std::string message = "\"" + name + "\" is not a single path component";
    const std::vector<std::string> failures{
        complaintOf([&] { SafeFS::validateComponent(name); }),
        complaintOf([&] { (void)files.openChild(name, top); }),
        complaintOf([&] { (void)files.createChild(name, top, 0700); }),
        complaintOf([&] { (void)files.ensureChild(name, top, 0700, 0, 0); }),
        complaintOf([&] { files.writeAtomically("", name, top, 0600, 0, 0); }),
        complaintOf([&] { (void)files.rename(name, top, "x", top, RenameMode::replace); }),
        complaintOf([&] { (void)files.rename("x", top, name, top, RenameMode::replace); }),
        complaintOf([&] { (void)files.lstatChild(name, top); })};
    EXPECT_THAT(failures, testing::Each(message));
    files.removeTree(name, top);
  }
  EXPECT_THAT(complaintOf([&] { (void)files.openParent("/a/.."); }), "\"..\" is not a single path component");
  EXPECT_THAT(world.work.calls(), IsEmpty());
  for (const char* name : {"a", "...", "with blank", "\xF4\x8E\xBF\xBF"}) SafeFS::validateComponent(name);
  try {
    SafeFS::validateComponent("..");
    FAIL();
  } catch (const SafeFS::InvalidComponent& refused) {
    EXPECT_EQ(refused.component(), "..");
  }
}

TEST(SafeFS, APathIsSplitIntoItsParentAndItsLastName) {
  SafeFSWorld world;
  world.makeDirectory("a/b");
  world.link("a", "link");
  const std::string& root = world.work.root();
  struct Case {
    std::string path, parent, name;
  };
  for (const Case& one : {Case{root + "/a/b", "a", "b"}, Case{root + "/a//b/", "a", "b"}, Case{root + "/a", "", "a"},
                          Case{root + "//a/missing", "a", "missing"}, Case{root + "/link/b", "a", "b"}}) {
    const auto [parent, name] = world.files.openParent(one.path);
    EXPECT_EQ(name, one.name) << one.path;
    EXPECT_EQ(world.files.statDirectory(parent)->inode,
              world.work.lstat(world.path(one.parent.empty() ? "." : one.parent))->inode)
        << one.path;
  }
  EXPECT_EQ(complaintOf([&] { (void)world.files.openParent("/"); }), "\"/\" is not a single path component");
  EXPECT_EQ(complaintOf([&] { (void)world.files.openParent("bare"); }),
            "open directory \"\" failed: No such file or directory");
}

// One call of one kind fails, with an errno that means nothing particular: each failure says what was being done.
TEST(SafeFS, EveryFailureSaysWhatWasBeingDoneToWhat) {
  struct Case {
    const char* name;
    FileWorkCall call;
    std::function<void(SafeFSWorld&, const SafeFS::Directory&)> operation;
    const char* words;
    std::uint64_t atCall = 1;
    int error = EDQUOT;
  };
  const auto ensureLink = [](SafeFSWorld& world, const auto& top) {
    world.link("/etc", "n");
    (void)world.files.ensureChild("n", top, 0700, 1, 2);
  };
  const auto ensure = [](SafeFSWorld& world, const auto& top) { (void)world.files.ensureChild("n", top, 0700, 1, 2); };
  const auto create = [](SafeFSWorld& world, const auto& top) { (void)world.files.createChild("n", top, 0700); };
  const auto write = [](SafeFSWorld& world, const auto& top) {
    world.files.writeAtomically("data", "n", top, 0600, 1, 2);
  };
  const auto list = [](SafeFSWorld& world, const auto& top) { (void)world.files.list(top); };
  const auto creating = [](SafeFSWorld& world, const auto&) {
    (void)world.files.openCreating(world.path("x/n"), 0755, [](const SafeFS::Directory&) {});
  };
  for (const Case& one : std::initializer_list<Case>{
           {"create mkdirat", FileWorkCall::mkdirat, create, "create directory \"n\""},
           {"create openChild", FileWorkCall::openChild, create, "open directory \"n\""},
           {"ensure mkdirat", FileWorkCall::mkdirat, ensure, "create directory \"n\""},
           {"ensure openChild", FileWorkCall::openChild, ensure, "open directory \"n\""},
           {"ensure fchown", FileWorkCall::fchown, ensure, "set owner of \"n\""},
           {"ensure fchmod", FileWorkCall::fchmod, ensure, "set permissions of \"n\""},
           {"replace unlinkat", FileWorkCall::unlinkat, ensureLink, "replace non-directory at \"n\""},
           {"replace mkdirat", FileWorkCall::mkdirat, ensureLink, "create directory \"n\"", 2},
           {"replace openChild", FileWorkCall::openChild, ensureLink, "open directory \"n\"", 2, ELOOP},
           {"write createFile", FileWorkCall::createFile, write, "create file \"n\""},
           {"write write", FileWorkCall::write, write, "write \"n\""},
           {"write fchown", FileWorkCall::fchown, write, "set owner of \"n\""},
           {"write fchmod", FileWorkCall::fchmod, write, "set permissions of \"n\""},
           {"write rename", FileWorkCall::rename, write, "commit \"n\""},
           {"list open", FileWorkCall::openBeneath, list, "enumerate \"directory\""},
           {"list read", FileWorkCall::readNames, list, "enumerate \"directory\""},
           {"creating mkdirat", FileWorkCall::mkdirat, creating, "create directory \"n\"", 2},
           {"creating openChild", FileWorkCall::openChild, creating, "open directory \"x\""}}) {
    SafeFSWorld world;
    {
      const SafeFS::Directory top = world.top();
      world.work.setFault({.fault = Fault::fail, .atCall = one.atCall, .only = one.call, .error = one.error});
      try {
        one.operation(world, top);
        ADD_FAILURE() << one.name;
      } catch (const SafeFS::POSIXFailure& failure) {
        EXPECT_EQ(failure.description(), std::string(one.words) + " failed: " + errnoText(one.error)) << one.name;
        EXPECT_EQ(failure.code(), one.error) << one.name;
        EXPECT_EQ(failure.operation() + " \"" + failure.component() + "\"", one.words);
      }
    }
    EXPECT_EQ(world.work.openNow(), 0U) << one.name;
  }
}

TEST(SafeFS, ADirectoryIsClosedWithItsLastReference) {
  SafeFSWorld world;
  {
    const SafeFS::Directory first = world.top();
    const SafeFS::Directory second = first;  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(first.fd(), second.fd());
    EXPECT_EQ(world.work.openNow(), 1U);
  }
  EXPECT_EQ(world.work.openNow(), 0U);
}

TEST(SafeFS, AChildThatIsALinkIsNeverOpened) {
  SafeFSWorld world;
  world.makeDirectory("directory");
  world.put("file");
  world.link("directory", "link");
  const SafeFS::Directory top = world.top();
  EXPECT_EQ(world.files.openChild("directory", top).fd() >= 0, true);
  EXPECT_EQ(complaintOf([&] { (void)world.files.openChild("link", top); }),
            "open directory \"link\" failed: Too many levels of symbolic links");
  EXPECT_EQ(complaintOf([&] { (void)world.files.openChild("file", top); }),
            "open directory \"file\" failed: Not a directory");
  EXPECT_EQ(complaintOf([&] { (void)world.files.createChild("directory", top, 0700); }),
            "create directory \"directory\" failed: File exists");
}

TEST(SafeFS, EnsureChildLeavesADirectoryWithItsOwnerAndModeWhateverStoodThere) {
  SafeFSWorld world;
  world.makeDirectory("elsewhere/kept");
  world.put("file", "gone");
  world.link("elsewhere", "link");
  world.link("nowhere", "dangling");
  world.makeDirectory("directory/kept");
  const SafeFS::Directory top = world.top();
  const StatRecord before = *world.files.lstatChild("elsewhere", top);
  for (const char* name : {"missing", "file", "link", "dangling", "directory"}) {
    const SafeFS::Directory made = world.files.ensureChild(name, top, 02750, 12, 34);
    const std::optional<StatRecord> record = world.files.lstatChild(name, top);
    ASSERT_TRUE(record) << name;
    EXPECT_EQ(record->type, FileType::directory) << name;
    EXPECT_EQ(record->mode, 02750U) << name;
    EXPECT_EQ(record->uid, 12U) << name;
    EXPECT_EQ(record->gid, 34U) << name;
    EXPECT_EQ(world.files.statDirectory(made)->inode, record->inode) << name;
  }
  EXPECT_EQ(world.tree(), "dangling/ directory/ directory/kept/ elsewhere/ elsewhere/kept/ file/ link/ missing/");
  const StatRecord after = *world.files.lstatChild("elsewhere", top);
  EXPECT_EQ(after.changed, before.changed);
  EXPECT_EQ(after.mode, before.mode);
}

// Somebody makes a directory, or takes the link away, between two of our calls.
TEST(SafeFS, EnsureChildBearsAnotherHand) {
  for (const bool removes : {false, true}) {
    SafeFSWorld world;
    world.link("/etc", "n");
    const SafeFS::Directory top = world.top();
    world.work.beforeEach([&](FileWorkCall call) {
      if (call != FileWorkCall::unlinkat) return;
      std::filesystem::remove(world.path("n"));
      if (!removes) world.makeDirectory("n");
    });
    const std::string failure = complaintOf([&] { (void)world.files.ensureChild("n", top, 0700, 0, 0); });
    EXPECT_EQ(failure, removes ? "" : "replace non-directory at \"n\" failed: Is a directory");
    EXPECT_EQ(world.tree(), "n/");
  }
}

TEST(SafeFS, OpenCreatingAsksAboutTheDeepestLevelBeforeItMakesTheOthers) {
  SafeFSWorld world;
  world.makeDirectory("a/b");
  world.link("a", "link");
  for (const char* start : {"a/b", "link/b"}) {
    const std::string path = world.path(start) + "/c//d/";
    const std::uint64_t deepest = world.work.lstat(world.path("a/b"))->inode;
    const auto refuse = [&](const SafeFS::Directory& found) {
      EXPECT_EQ(world.files.statDirectory(found)->inode, deepest);
      throw Error("test", 1, "not here");
    };
    EXPECT_EQ(complaintOf([&] { (void)world.files.openCreating(path, 0750, refuse); }), "not here");
    EXPECT_EQ(world.tree("a"), "b/");
    int asked = 0;
    const SafeFS::Directory made = world.files.openCreating(path, 0750, [&](const SafeFS::Directory&) { ++asked; });
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(world.tree("a"), "b/ b/c/ b/c/d/");
    EXPECT_EQ(world.files.statDirectory(made)->inode, world.work.lstat(world.path("a/b/c/d"))->inode);
    EXPECT_EQ(world.files.statDirectory(made)->mode, 0750U);
    const std::string again =
        complaintOf([&] { (void)world.files.openCreating(path, 0700, [](const SafeFS::Directory&) {}); });
    EXPECT_EQ(again, "");
    std::filesystem::remove_all(world.path("a/b/c"));
  }
}

TEST(SafeFS, OpenCreatingRefusesWhatItCannotMake) {
  SafeFSWorld world;
  world.put("file");
  world.link("missing", "dangling");
  const std::string missing = " failed: No such file or directory";
  const std::string deep = world.work.root() + std::string(5000, '/') + "x";
  struct Case {
    std::string path, failure;
  };
  for (const Case& one : std::initializer_list<Case>{
           {"", "locate \"\"" + missing},
           {"bare", "locate \"bare\"" + missing},
           {"relative/path", "locate \"relative/path\"" + missing},
           {deep, "locate \"" + deep + "\" failed: File name too long"},
           {world.path("file"), "open directory \"" + world.path("file") + "\" failed: Not a directory"},
           {world.path("file/x"), "open directory \"" + world.path("file") + "\" failed: Not a directory"},
           {world.path("dangling/x"), "open directory \"" + world.path("dangling") + "\"" + missing},
           {world.path("no/../x"), "\"..\" is not a single path component"}}) {
    EXPECT_EQ(complaintOf([&] { (void)world.files.openCreating(one.path, 0755, [](const auto&) {}); }), one.failure);
  }
  // What was made before a later level failed stays.
  EXPECT_EQ(world.tree(), "dangling@ file no/");
  // A link that appears where a level is missing is not followed.
  world.work.beforeEach([&](FileWorkCall call) {
    if (call == FileWorkCall::mkdirat) world.link("/etc", "trap");
  });
  EXPECT_EQ(complaintOf([&] { (void)world.files.openCreating(world.path("trap/x"), 0755, [](const auto&) {}); }),
            "open directory \"trap\" failed: Too many levels of symbolic links");
}

const std::string oldContents = "old";
const std::string newContents(3000, 'n');

// Goal:   the name holds the old content or the new, and after a failure no temporary name remains.
// Method: fail, cut short or kill at the n-th call for n = 1, 2, ... until no fault fires.
TEST(SafeFS, WritingAtomicallyLeavesTheOldOrTheNewContent) {
  for (const sim::FileWorkFault& kind : {sim::FileWorkFault{.fault = Fault::fail, .error = EIO},
                                         sim::FileWorkFault{.fault = Fault::fail, .error = EINTR},
                                         sim::FileWorkFault{.fault = Fault::shortWrite, .only = FileWorkCall::write},
                                         sim::FileWorkFault{.fault = Fault::kill}}) {
    for (sim::FileWorkFault fault = kind;; ++fault.atCall) {
      ASSERT_LT(fault.atCall, 100U);
      SafeFSWorld world;
      world.put("store", oldContents);
      bool completed = false;
      {
        const SafeFS::Directory top = world.top();
        world.work.setFault(fault);
        try {
          world.files.writeAtomically(newContents, "store", top, 0640, 12, 34);
          completed = true;
        } catch (const SafeFS::POSIXFailure& failure) {
          EXPECT_EQ(failure.component(), "store") << fault.describe();
        } catch (const sim::SimulatedKill&) {
        }
      }
      const bool fired = world.work.faultFired();
      EXPECT_EQ(world.contents("store"), completed ? newContents : oldContents) << fault.describe();
      EXPECT_TRUE(kind.fault == Fault::kill || world.tree() == "store") << fault.describe();
      EXPECT_TRUE(kind.fault != Fault::shortWrite || completed) << fault.describe();
      EXPECT_EQ(world.work.openNow(), 0U);
      if (fired) continue;
      EXPECT_TRUE(completed);
      world.work.setFault({});
      const SysResult<StatRecord> record = world.work.lstat(world.path("store"));
      EXPECT_EQ(record->mode, 0640U);
      EXPECT_EQ(record->uid, 12U);
      EXPECT_EQ(record->gid, 34U);
      break;
    }
  }
}

TEST(SafeFS, TheTemporaryNameTellsTheProcessAndARandomNumber) {
  SafeFSWorld world;
  const SafeFS::Directory top = world.top();
  world.work.setFault({.fault = Fault::kill, .only = FileWorkCall::rename});
  EXPECT_THROW(world.files.writeAtomically("x", "store", top, 0600, 0, 0), sim::SimulatedKill);
  EXPECT_EQ(world.tree(), ".qlm-4711-" + std::to_string(sim::Draws(7).next()));
}

TEST(SafeFS, ARenameHandsItsErrnoBack) {
  SafeFSWorld world;
  world.put("a", "a");
  world.put("b", "b");
  const SafeFS::Directory top = world.top();
  EXPECT_EQ(world.files.rename("a", top, "b", top, RenameMode::exclusive), EEXIST);
  EXPECT_EQ(world.files.rename("missing", top, "b", top, RenameMode::replace), ENOENT);
  EXPECT_EQ(world.files.rename("a", top, "b", top, RenameMode::exchange), std::nullopt);
  EXPECT_EQ(world.contents("a") + world.contents("b"), "ba");
}

TEST(SafeFS, WhatCannotBeAskedIsNotThere) {
  SafeFSWorld world;
  world.put("file");
  const SafeFS::Directory top = world.top();
  EXPECT_TRUE(world.files.lstatChild("file", top));
  EXPECT_FALSE(world.files.lstatChild("missing", top));
  world.work.setFault({.fault = Fault::fail, .only = FileWorkCall::fstatat, .error = EACCES});
  EXPECT_FALSE(world.files.lstatChild("file", top));
  world.work.setFault({.fault = Fault::fail, .only = FileWorkCall::fstat});
  EXPECT_FALSE(world.files.statDirectory(top));
}

TEST(SafeFS, AListingStartsFromTheBeginningEachTime) {
  SafeFSWorld world;
  std::vector<std::string> names{"\xF4\x8E\xBF\xBF"};
  for (int i = 0; i < 1500; ++i) names.push_back("name " + std::to_string(i));
  const SafeFS::Directory top = world.top();
  for (const std::string& name : names) world.files.writeAtomically("", name, top, 0600, 0, 0);
  EXPECT_THAT(world.files.list(top), testing::UnorderedElementsAreArray(names));
  EXPECT_THAT(world.files.list(top), testing::UnorderedElementsAreArray(names));
  EXPECT_EQ(world.work.openNow(), 1U);
}

}  // namespace
}  // namespace quillmark
