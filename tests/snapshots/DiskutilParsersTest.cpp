#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/PropertyList.h"
#include "snapshots/DiskutilFacts.h"
#include "snapshots/DiskutilSnapshotCatalog.h"
#include "tests/base/Failures.h"

namespace quillmark {
namespace {

std::string plist(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?><plist version=\"1.0\">" + body + "</plist>";
}

std::string snapshot(const std::string& name, const std::string& xid) {
  return "<dict><key>SnapshotName</key><string>" + name + "</string><key>SnapshotXID</key>" + xid + "</dict>";
}

std::string catalog(const std::string& entries) {
  return plist("<dict><key>Snapshots</key><array>" + entries + "</array></dict>");
}

TEST(DiskutilCatalog, mapsNamesToUnsignedXids) {
  os::LinuxPropertyLists lists;
  const auto parsed = DiskutilSnapshotCatalog::parse(
      lists,
      catalog(snapshot("a", "<integer>7</integer>") + snapshot("b&amp;", "<integer>18446744073709551615</integer>")));
  EXPECT_EQ(parsed.xidByName, (std::map<std::string, Xid>{{"a", {7}}, {"b&", {18446744073709551615U}}}));
  EXPECT_TRUE(DiskutilSnapshotCatalog::parse(lists, catalog("")).xidByName.empty());
}

TEST(DiskutilCatalog, refusesEachFlawByItsCodeAndText) {
  struct Case {
    std::string output;
    long code;
    const char* message;
  };
  const std::string seven = "<integer>7</integer>";
  const std::vector<Case> cases{
      {"rubbish", 1, "diskutil returned an invalid snapshot plist: "},
      {plist("<array/>"), 1, "diskutil returned an invalid snapshot plist: "},
      {plist("<dict/>"), 2, "diskutil snapshot plist omitted the Snapshots array"},
      {plist("<dict><key>Snapshots</key><string>x</string></dict>"), 2,
       "diskutil snapshot plist omitted the Snapshots array"},
      {catalog(snapshot("a", seven) + "<dict/>"), 3, "diskutil snapshot entry 1 omitted SnapshotName or SnapshotXID"},
      {catalog(snapshot("", seven)), 3, "diskutil snapshot entry 0 omitted SnapshotName or SnapshotXID"},
      {catalog(snapshot("a", "<string>7</string>")), 3,
       "diskutil snapshot entry 0 omitted SnapshotName or SnapshotXID"},
      {catalog("<string>a</string>"), 3, "diskutil snapshot entry 0 omitted SnapshotName or SnapshotXID"},
      {catalog(snapshot("a", "<integer>0</integer>")), 4, "diskutil reported a zero XID for snapshot a"},
      {catalog(snapshot("a", seven) + snapshot("a", seven)), 5, "diskutil reported duplicate snapshot name a"},
  };
  os::LinuxPropertyLists lists;
  for (const Case& bad : cases) {
    const Error error = failureOf([&] { (void)DiskutilSnapshotCatalog::parse(lists, bad.output); });
    EXPECT_EQ(error.domain(), "Quillmark.DiskutilSnapshotCatalog");
    EXPECT_EQ(error.code(), bad.code);
    EXPECT_THAT(error.description(), ::testing::StartsWith(bad.message));
  }
}

TEST(DiskutilFacts, readContainersAndPassOverWhatTheyLack) {
  os::LinuxPropertyLists lists;
  const APFSContainers containers = parseContainers(lists, plist(R"(<dict><key>Containers</key><array><dict/><dict>
    <key>ContainerReference</key><string>disk3</string><key>CapacityCeiling</key><integer>100</integer>
    <key>Volumes</key><array>
      <dict><key>DeviceIdentifier</key><string>disk3s1</string><key>CapacityInUse</key><integer>10</integer>
        <key>FileVault</key><true/><key>Roles</key><array><string>Data</string></array></dict>
      <dict><key>DeviceIdentifier</key><string>disk3s2</string><key>Roles</key><array><string>xART</string></array></dict>
      <dict><key>CapacityInUse</key><integer>99</integer></dict>
    </array></dict></array></dict>)"));
  ASSERT_EQ(containers.size(), 1U);
  const APFSContainerInfo& info = containers.at("disk3");
  EXPECT_EQ(info.total, 100U);
  EXPECT_EQ(info.free, 0U);
  EXPECT_EQ(info.volumeUsage, (std::map<std::string, std::uint64_t>{{"disk3s1", 10}, {"disk3s2", 0}}));
  EXPECT_EQ(info.visibleVolumeCount, 1);
  EXPECT_TRUE(info.volumeMeta.at("disk3s1").isFileVault);
  EXPECT_TRUE(parseContainers(lists, "rubbish").empty());
}

TEST(DiskutilFacts, summarizeAVolumesInfo) {
  os::LinuxPropertyLists lists;
  const auto info = [&](const std::string& body) { return parseInfo(lists, plist("<dict>" + body + "</dict>")); };
  EXPECT_EQ(info("<key>BusProtocol</key><string>USB</string><key>EncryptionThisVolumeProper</key><true/>"),
            (DiskutilInfoSummary{"USB", true}));
  EXPECT_EQ(info("<key>BusProtocol</key><string>Disk Image</string>"), (DiskutilInfoSummary{std::nullopt, false}));
  EXPECT_EQ(info("<key>BusProtocol</key><string></string>"), (DiskutilInfoSummary{std::nullopt, false}));
  EXPECT_FALSE(parseInfo(lists, plist("<array/>")));
}

TEST(DiskutilFacts, cutTheSliceOffADeviceName) {
  const std::pair<const char*, const char*> cases[] = {{"disk3s1", "disk3"},     {"disk3s12", "disk3"},
                                                       {"disk3s1s1", "disk3s1"}, {"disk3", "disk3"},
                                                       {"disk3s", "disk3s"},     {"", ""}};
  for (const auto& [name, container] : cases) EXPECT_EQ(containerBSDName(name), container);
}

}  // namespace
}  // namespace quillmark
