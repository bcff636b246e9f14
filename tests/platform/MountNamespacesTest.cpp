#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/MountNamespaces.h"
#include "platform/sim/MachineClock.h"

namespace quillmark::os {
namespace {

constexpr DeviceNumber device{0, 46};
constexpr btrfs::SubvolumeId subvolume = 257;
static_assert(sizeof(SubvolumeSearch) < 256, "what a namespace's owner writes isn't kept");

const std::string mounted = "61 48 0:46 /s1/d /m3 rw,noatime - btrfs /dev/loop0 rw,ssd,subvolid=257,subvol=/s1\n";

std::string line(const std::string& numbers, const std::string& path, const std::string& rest) {
  return numbers + " " + path + " " + path + " rw,noatime " + rest + "\n";
}

bool finds(std::string_view text, std::size_t pieceSize) {
  SubvolumeSearch search(device, subvolume);
  for (; !text.empty(); text.remove_prefix(std::min(pieceSize, text.size()))) search.feed(text.substr(0, pieceSize));
  return search.found();
}

SubvolumeIds gathered(std::string_view text, std::size_t pieceSize) {
  SubvolumeIds all;
  SubvolumeSearch search(device, all);
  for (; !text.empty(); text.remove_prefix(std::min(pieceSize, text.size()))) search.feed(text.substr(0, pieceSize));
  return all;
}

struct Case {
  const char* what;
  std::string text;
  bool isFound;
};

const std::string super = "- btrfs /dev/loop0 rw,subvolid=";

const Case cases[] = {
    {"a subvolume", mounted, true},
    {"its first option", line("1 2 0:46", "/", "- btrfs /dev/loop0 subvolid=257,subvol=/s1"), true},
    {"shared and with optional fields", line("1 2 0:46", "/", "shared:3 master:-1 " + super + "257,subvol=/s1"), true},
    {"a source without a name", line("1 2 0:46", "/", "- btrfs  rw,subvolid=257,subvol=/s1"), true},
    {"another subvolume", line("1 2 0:46", "/", super + "2570,subvol=/s1"), false},
    {"another, shorter one", line("1 2 0:46", "/", super + "25,subvol=/s1"), false},
    {"another device", line("1 2 0:461", "/", super + "257,subvol=/s1"), false},
    {"another, shorter device", line("1 2 0:4", "/", super + "257,subvol=/s1"), false},
    {"an id in a subvolume's name", line("1 2 0:46", "/", super + "9,subvol=/a,subvolid=257,b"), false},
    {"an id in a path", line("1 2 0:46", "/,subvolid=257,", super + "9,subvol=/"), false},
    {"an id in the source", line("1 2 0:46", "/", "- btrfs /x,subvolid=257,y rw,subvolid=9,subvol=/"), false},
    {"a device in a path", line("1 2 0:47", "/a\\0401\\0402\\0400:46", super + "257,subvol=/"), false},
    {"fields cut off, then a line", "1 2 0:46 / /m rw\n1 2 0:46\n\n - \n" + mounted, true},
    {"the dash left out", "1 2 0:46 / /m rw btrfs /dev/loop0 rw,subvolid=257,subvol=/\n", false},
    {"a long field of numbers",
     line(std::string(1000, '1') + " 2 0:46" + std::string(1000, '0'), "/", super + "257,subvol=/s1"), false},
};

TEST(SubvolumeSearch, GathersAllThatAreMountedOfADevice) {
  const std::string text = mounted + line("1 2 0:46", "/", "- btrfs /dev/loop0 ,subvolid=9,subvol=/") +
                           line("1 2 0:47", "/", super + "10,subvol=/") + line("1 2 0:46", "/", super + "5,subvol=/") +
                           mounted;
  EXPECT_EQ(gathered(text, text.size()), (SubvolumeIds{5, 9, 257}));
}

TEST(SubvolumeSearch, ReadsTextCutAnywhereAsItReadsItWhole) {
  for (const Case& one : cases) {
    for (std::size_t size = 1; size <= one.text.size(); ++size) {
      EXPECT_EQ(finds(one.text, size), one.isFound) << one.what << " in pieces of " << size;
      EXPECT_EQ(gathered(one.text, size).contains(subvolume), one.isFound) << one.what << " in pieces of " << size;
    }
  }
}

// Goal:   lines of any length and number neither hide a mount that follows nor make one up.
TEST(SubvolumeSearch, FindsItsLineAmongThoseOfAHostileNamespace) {
  std::string path;
  for (int depth = 0; depth < 300; ++depth) path += "/" + std::string(200, '-') + "\\134";
  std::string hostile;
  for (const char* numbers : {"1 2 0:46", "1 2 0:47"}) {
    for (int count = 0; count < 20; ++count) hostile += line(numbers, path, super + "9,subvol=" + path);
  }
  for (const std::size_t size : {61u, 4096u, 65536u}) {
    EXPECT_FALSE(finds(hostile, size));
    EXPECT_TRUE(finds(hostile + mounted, size));
  }
}

TEST(SubvolumeSearch, BeginsAnotherTableAfresh) {
  SubvolumeSearch search(device, subvolume);
  search.feed("1 2 0:46 / / rw - btrfs /dev/loop0 rw,subvolid=25");
  search.restart();
  search.feed("7,subvol=/\n");
  EXPECT_FALSE(search.found());
  search.feed(mounted);
  EXPECT_TRUE(search.found());
}

TEST(MountNamespaces, PastItsLimitsNothingIsKnown) {
  sim::MachineClock clock(Date::from1970(1'772'355'600), "UTC");
  NamespaceLimits noTime, noBytes;
  noTime.time = {};
  noBytes.bytes = 0;
  for (const NamespaceLimits& limits : {noTime, noBytes}) {
    const auto answer = isMountedAnywhere({0, 0}, subvolume, clock, limits);
    ASSERT_FALSE(answer);
    // Without root the first process may refuse to be asked before any limit is.
    EXPECT_TRUE(answer.error() == EBUSY || (::geteuid() != 0 && answer.error() == EACCES)) << answer.error();
  }
}

}  // namespace
}  // namespace quillmark::os
