#include <gtest/gtest.h>

#include "snapshots/MountNames.h"

namespace quillmark {
namespace {

const std::string uuid = "00112233-4455-6677-8899-AABBCCDDEEFF";
const std::string lower = "00112233-4455-6677-8899-aabbccddeeff";

TEST(MountNames, keepOnlyWhatIsSafeInAPath) {
  const std::pair<std::string, std::string> cases[] = {
      {"My Disk", "My Disk"}, {"a/b:c", "a_b_c"}, {"größe", "gr_e"},
      {"日本語", "_"},        {"  x  ", "x"},     {"", "snapshot"},
      {"   ", "snapshot"},    {"\xFF\xFE", "_"},  {std::string(100, 'a'), std::string(80, 'a')}};
  for (const auto& [text, wanted] : cases) EXPECT_EQ(sanitizeMountComponent(text), wanted) << text;
  EXPECT_EQ(snapshotMountName("Data", uuid), "Data-" + lower);
  EXPECT_EQ(snapshotMountName("日本", uuid), "_-" + lower);
  EXPECT_EQ(snapshotMountName(std::string(60, 'x'), uuid), std::string(40, 'x') + "-" + lower);
  EXPECT_EQ(snapshotMountName("Data", "no/uuid"), "Data-no_uuid");
}

TEST(MountNames, composedForAVolumeAreAcceptable) {
  const HostPaths paths;
  for (const char* name : {"Data", "日本", "a b", "..", "/", "@snap-1", ""}) {
    VolumeInfo volume;
    volume.uuid = uuid;
    volume.name = name;
    const std::string path = userMountPath(paths, volume, Xid{18446744073709551615U});
    EXPECT_EQ(acceptableMountPath(paths, path), path);
  }
}

TEST(MountNames, ofClientsAreAcceptedOnlyWhenTheyCouldBeOurs) {
  const HostPaths paths;
  const std::string head = "/Volumes/Data-" + lower;
  for (const std::string& good : {head + "@snap-1", std::string("/Volumes/a_b c.d-e@snap-003")}) {
    EXPECT_TRUE(acceptableMountPath(paths, good)) << good;
  }
  for (const std::string& bad :
       {std::string(), std::string("/Volumes"), std::string("/Volumes/"), std::string("/Volumes/Data"), head + "@snap-",
        head + "@snap-1x", head + "@snap--1", head + "/x@snap-1", std::string("/Volumes/../@snap-1"),
        std::string("/Volumes/@snap-1"), std::string("/Volumes/a@snap-2@snap-3"), std::string("/Volumes/ü@snap-1"),
        "/Volumes/" + std::string(81, 'a') + "@snap-1", std::string("/volumes/a@snap-1"),
        std::string("Volumes/a@snap-1"), head + "@snap-1" + std::string(1, '\0'), head + "@snap-٣",
        std::string("/tmp/a@snap-1")}) {
    EXPECT_FALSE(acceptableMountPath(paths, bad)) << bad;
  }
}

}  // namespace
}  // namespace quillmark
