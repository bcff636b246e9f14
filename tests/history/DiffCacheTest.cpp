#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "history/DiffCache.h"
#include "platform/linux/Clock.h"
#include "platform/sim/Draws.h"
#include "platform/sim/SimFileWork.h"
#include "platform/sim/SimThisProcess.h"
#include "platform/sim/Simulation.h"
#include "wire/DiffResult.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr std::string_view volumeText = "0f2b9e7a-0000-4000-8000-000000000001";

class Cache : public testing::Test {
 protected:
  Cache() { fs::create_directories(work.root() + "/shared"); }

  [[nodiscard]] DiffCache::Request request(std::uint64_t a, std::uint64_t b, std::uint32_t uid = ::getuid()) const {
    return {.uid = uid, .volume = VolumeUuid(volumeText), .xidA = {a}, .xidB = {b}};
  }
  std::string write(const DiffCache::Request& wanted, std::string marker = "one") {
    return cache.write(wanted, {.volumeUUID = std::move(marker), .xidA = wanted.xidA, .xidB = wanted.xidB});
  }
  [[nodiscard]] std::string markerIn(const std::string& path) const {
    std::ifstream file(path);
    return readDiffResult(std::string(std::istreambuf_iterator<char>(file), {})).volumeUUID;
  }
  void age(const std::string& path, std::chrono::seconds by) const {
    fs::last_write_time(path, fs::last_write_time(path) - by);
  }
  [[nodiscard]] std::string userDirectory() const { return root + "/uid-" + std::to_string(::getuid()); }

  sim::SimFileWork work;
  sim::Draws draws{7};
  sim::SimThisProcess process{4711};
  const SafeFS files{work, draws, process};
  os::LinuxClock clock;
  HostPaths paths = [&] {
    HostPaths made;
    made.sharedDirectory = work.root() + "/shared";
    return made;
  }();
  const std::string root = paths.sharedDirectory + "/diff-cache";
  DiffCache cache{work, files, clock, paths};
};

TEST_F(Cache, namesEachQuestionsFileAndGivesItBackForSixHours) {
  auto wanted = request(7, 5);
  EXPECT_EQ(cache.find(wanted), std::nullopt);
  const std::string path = write(wanted);
  EXPECT_EQ(path, userDirectory() + "/" + std::string(volumeText) + "/7-5-rows.qmdiff");
  EXPECT_EQ(cache.find(wanted), path);
  EXPECT_EQ(markerIn(path), "one");
  EXPECT_EQ(fs::status(path).permissions(), fs::perms(0400));
  for (const std::string& directory : {root, userDirectory(), userDirectory() + "/" + std::string(volumeText)}) {
    EXPECT_EQ(fs::status(directory).permissions(), fs::perms(0711)) << directory;
  }
  wanted.includeTree = wanted.ignoreExclusions = true;
  EXPECT_EQ(cache.find(wanted), std::nullopt) << "another question";
  EXPECT_TRUE(write(wanted).ends_with("/7-5-tree-full.qmdiff"));

  age(path, 21'590s);
  EXPECT_EQ(cache.find(request(7, 5)), path);
  age(path, 20s);
  EXPECT_EQ(cache.find(request(7, 5)), std::nullopt);
  age(path, -30'000s);
  EXPECT_EQ(cache.find(request(7, 5)), std::nullopt) << "its owner dated it so";
  EXPECT_EQ(write(request(7, 5), "two"), path);
  EXPECT_EQ(markerIn(path), "two");
}

TEST_F(Cache, sweepsThatUsersOldFilesWhenItWrites) {
  const std::string old = write(request(1, 2)), young = write(request(1, 3));
  const std::string other = fs::path(old).parent_path() / "note.txt", early = write(request(1, 5)),
                    unfinished = fs::path(old).parent_path() / ".qlm-4711-9";
  for (const std::string& path : {other, unfinished}) std::ofstream(path) << "not ours to judge";
  for (const std::string& path : {old, other, unfinished}) age(path, 30'000s);
  age(early, -30'000s);
  write(request(1, 4));
  for (const std::string& path : {old, early, unfinished}) EXPECT_FALSE(fs::exists(path)) << path;
  EXPECT_TRUE(fs::exists(young));
  EXPECT_TRUE(fs::exists(other));
}

TEST_F(Cache, takesAwayAVolumesFilesOrThoseOfItsSnapshots) {
  const std::string first = write(request(12, 3)), second = write(request(3, 4)), third = write(request(1, 23));
  cache.purge(VolumeUuid(volumeText), {{3}});
  EXPECT_FALSE(fs::exists(first));
  EXPECT_FALSE(fs::exists(second));
  EXPECT_TRUE(fs::exists(third)) << "23 isn't 3";
  cache.purge(VolumeUuid("0f2b9e7a-0000-4000-8000-000000000002"));
  EXPECT_TRUE(fs::exists(third));
  cache.purge(VolumeUuid(volumeText));
  EXPECT_FALSE(fs::exists(third));
}

// Whatever stands in a path's place is replaced or counts as absent, and nothing beside it is touched.
TEST_F(Cache, followsNothingThatStandsInItsWay) {
  const std::string elsewhere = work.root() + "/elsewhere";
  fs::create_directories(elsewhere);
  std::ofstream(elsewhere + "/keep.qmdiff") << "a user's own";
  age(elsewhere + "/keep.qmdiff", 30'000s);
  const std::string path = write(request(1, 2));
  const std::string volume = fs::path(path).parent_path();

  for (const std::string& place : {root, userDirectory(), volume}) {
    SCOPED_TRACE(place);
    fs::remove_all(place);
    fs::create_directory_symlink(elsewhere, place);
    EXPECT_EQ(cache.find(request(1, 2)), std::nullopt);
    cache.purge(VolumeUuid(volumeText));
    EXPECT_EQ(write(request(1, 2)), path);
    EXPECT_TRUE(fs::is_directory(fs::symlink_status(place)));
    EXPECT_TRUE(fs::exists(elsewhere + "/keep.qmdiff"));
    EXPECT_EQ(std::distance(fs::directory_iterator(elsewhere), {}), 1);
  }

  // In the file's own place: a link to a file of the same kind, a second name of one, another mode.
  const std::string good = write(request(1, 3));
  fs::remove(path);
  fs::create_symlink(good, path);
  EXPECT_EQ(cache.find(request(1, 2)), std::nullopt);
  EXPECT_EQ(write(request(1, 2), "two"), path);
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(path)));
  EXPECT_EQ(markerIn(good), "one");
  fs::create_hard_link(path, volume + "/second");
  EXPECT_EQ(cache.find(request(1, 2)), std::nullopt);
  fs::remove(volume + "/second");
  fs::permissions(path, fs::perms(0444));
  EXPECT_EQ(cache.find(request(1, 2)), std::nullopt);
}

}  // namespace
}  // namespace quillmark
