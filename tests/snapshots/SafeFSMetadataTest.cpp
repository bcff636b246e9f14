#include <cerrno>

#include "SafeFSWorld.h"

namespace quillmark {
namespace {

using sim::Fault;
using sim::FileWorkCall;

constexpr std::uint32_t noDump = 0x40;

class Copy : public ::testing::Test {
 protected:
  WorkDescriptor made(const char* name) {
    return WorkDescriptor(world.work, *world.work.createFile(top.fd(), name, 0600));
  }
  void copy(SafeFS::Elevation elevation = SafeFS::Elevation::kept) {
    world.files.copyMetadata(source.get(), destination.get(), elevation);
  }
  // acl(5) as the kernel takes it: version 2; u::rw-, u:12:rw-, g::---, m::rw-, o::---.
  static AccessControlList list() {
    const auto entry = [](char tag, char permissions, const char* id) {
      return std::string{tag, 0, permissions, 0} + std::string(id, 4);
    };
    const char* nobody = "\xFF\xFF\xFF\xFF";
    return {.access = std::string("\2\0\0\0", 4) + entry(1, 6, nobody) + entry(2, 6, "\x0C\0\0\0") +
                      entry(4, 0, nobody) + entry(16, 6, nobody) + entry(32, 0, nobody)};
  }
  void dress(int fd) {
    FileWork& work = world.work;
    ASSERT_TRUE(work.fsetxattr(fd, "user.colour", "blue"));
    ASSERT_TRUE(work.fsetxattr(fd, "user.empty", ""));
    ASSERT_TRUE(work.setAccessControlList(fd, list()));
    ASSERT_TRUE(work.fchown(fd, 12, 34));
    ASSERT_TRUE(work.fchmod(fd, 06660));
    ASSERT_TRUE(work.futimens(fd, {1000, 5}, {2000, 7}));
    ASSERT_TRUE(work.setFlags(fd, noDump));
  }

  SafeFSWorld world;
  const SafeFS::Directory top = world.top();
  const WorkDescriptor source = made("source");
  const WorkDescriptor destination = made("destination");
};

TEST_F(Copy, OfAFileHasAllThatItBears) {
  dress(source.get());
  copy();
  const StatRecord record = *world.work.fstat(destination.get());
  EXPECT_EQ(record.mode, 06660U);
  EXPECT_EQ(record.uid, 12U);
  EXPECT_EQ(record.gid, 34U);
  EXPECT_EQ(record.accessed, (FileTime{1000, 5}));
  EXPECT_EQ(record.modified, (FileTime{2000, 7}));
  EXPECT_EQ(*world.work.accessControlList(destination.get()), list());
  EXPECT_EQ(*world.work.flags(destination.get()), noDump);
  EXPECT_EQ(*world.work.fgetxattr(destination.get(), "user.colour"), "blue");
  EXPECT_EQ(*world.work.fgetxattr(destination.get(), "user.empty"), "");
}

TEST_F(Copy, ThatDropsElevationLosesTheSetIdBitsAlone) {
  dress(source.get());
  copy(SafeFS::Elevation::dropped);
  EXPECT_EQ(world.work.fstat(destination.get())->mode, 0660U);
  EXPECT_EQ(*world.work.fgetxattr(destination.get(), "user.colour"), "blue");
}

// Goal:   a list that the copy inherited from where it was made gives nobody what the source's mode doesn't.
TEST_F(Copy, OfAPlainFileHasOwnerModeAndTimesAndNoListOfItsOwn) {
  ASSERT_TRUE(world.work.fchmod(source.get(), 0440));
  ASSERT_TRUE(world.work.futimens(source.get(), {1, 0}, {2, 0}));
  ASSERT_TRUE(world.work.setAccessControlList(destination.get(), list()));
  ASSERT_TRUE(world.work.setFlags(destination.get(), noDump));
  copy();
  EXPECT_EQ(world.work.fstat(destination.get())->mode, 0440U);
  EXPECT_EQ(world.work.fstat(destination.get())->modified, (FileTime{2, 0}));
  EXPECT_TRUE(world.work.accessControlList(destination.get())->empty());
  // A source without flags leaves those of the copy.
  EXPECT_EQ(*world.work.flags(destination.get()), noDump);
}

TEST_F(Copy, SkipsAnAttributeThatVanishes) {
  dress(source.get());
  world.work.setFault({.fault = Fault::fail, .only = FileWorkCall::fgetxattr, .error = ENODATA});
  copy();
  EXPECT_EQ(world.work.flistxattr(destination.get())->size(), world.work.flistxattr(source.get())->size() - 1);
}

TEST_F(Copy, SaysWhichStepFailedAndLeavesTheLastTwoAside) {
  ASSERT_TRUE(world.work.fsetxattr(source.get(), "user.colour", "blue"));
  ASSERT_TRUE(world.work.setFlags(source.get(), noDump));
  struct Case {
    FileWorkCall call;
    const char* words;
  };
  for (const Case& one :
       {Case{FileWorkCall::fstat, "read metadata of \"source\""},
        Case{FileWorkCall::fchown, "set owner of \"destination\""},
        Case{FileWorkCall::flistxattr, "list the extended attributes of \"source\""},
        Case{FileWorkCall::fgetxattr, "read extended attribute user.colour of \"source\""},
        Case{FileWorkCall::fsetxattr, "write extended attribute user.colour to \"destination\""},
        Case{FileWorkCall::accessControlList, "copy the access control list of \"source\""},
        Case{FileWorkCall::setAccessControlList, "copy the access control list of \"destination\""},
        Case{FileWorkCall::fchmod, "set permissions of \"destination\""}, Case{FileWorkCall::futimens, ""},
        Case{FileWorkCall::flags, ""}, Case{FileWorkCall::setFlags, ""}}) {
    world.work.setFault({.fault = Fault::fail, .only = one.call, .error = EPERM});
    const std::string words = one.words;
    EXPECT_EQ(complaintOf([&] { copy(); }), words.empty() ? "" : words + " failed: Operation not permitted");
    EXPECT_TRUE(world.work.faultFired()) << words;
  }
}

}  // namespace
}  // namespace quillmark
