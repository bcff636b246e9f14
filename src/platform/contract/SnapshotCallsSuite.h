// What every pair of SnapshotCalls and Disks does. A backend gives
//   calls(), disks()         over one mounted volume
//   mountPoint(), uuid()     of that volume
//   makeDirectory(name)      an empty directory, as a full path
//   makeForeign(), removeForeign()  a snapshot made, and removed, by another program
//   openReader(directory)    somebody who has a file open in the snapshot mounted there; canRead() tells if he still can
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "platform/Disks.h"
#include "platform/SnapshotCalls.h"

namespace quillmark::contract {

inline constexpr AttributeList everyAttribute{
    .bitmapCount = 5, .common = attrCmnReturnedAttrs | attrCmnFileId | attrCmnCreationTime | attrCmnName};
inline constexpr std::uint32_t snapshotMountFlags = mntReadOnly | mntNoSuid | mntNoDev;

// Reads records by the offsets that their description gives, and by nothing else.
inline std::vector<SnapshotListEntry> parseRecords(std::span<const std::byte> buffer, int count) {
  std::vector<SnapshotListEntry> entries;
  const auto read = [&](std::size_t at, auto& value) { std::memcpy(&value, buffer.data() + at, sizeof value); };
  for (std::size_t at = 0; count > 0; --count) {
    std::uint32_t length = 0, returned = 0, nameLength = 0;
    std::int32_t nameOffset = 0;
    SnapshotListEntry entry;
    read(at, length), read(at + 4, returned), read(at + 24, nameOffset), read(at + 28, nameLength);
    read(at + 32, entry.createdSeconds), read(at + 40, entry.createdNanoseconds), read(at + 48, entry.fileId);
    EXPECT_EQ(returned & 0x02000201, 0x02000201u);
    const std::size_t name = at + 24 + static_cast<std::size_t>(nameOffset);
    EXPECT_LE(name + nameLength, at + length);
    EXPECT_EQ(buffer[name + nameLength - 1], std::byte{0});
    entry.name.assign(reinterpret_cast<const char*>(buffer.data() + name), nameLength - 1);
    entries.push_back(std::move(entry));
    at += length;
  }
  return entries;
}

inline std::vector<SnapshotListEntry> listAll(SnapshotCalls& calls, OpenVolume& volume,
                                              std::size_t bufferSize = 65536) {
  std::vector<SnapshotListEntry> all;
  std::vector<std::byte> buffer(bufferSize);
  for (;;) {
    const auto count = calls.fs_snapshot_list(volume, everyAttribute, buffer);
    EXPECT_TRUE(count) << "errno " << count.error();
    if (!count || *count == 0) return all;
    for (auto& entry : parseRecords(buffer, *count)) all.push_back(std::move(entry));
  }
}

// The XID of the snapshot that bears the name now; 1, which none has, when there is none.
inline Xid xidOf(SnapshotCalls& calls, OpenVolume& volume, const std::string& name) {
  for (const SnapshotListEntry& entry : listAll(calls, volume)) {
    if (entry.name == name) return Xid{entry.fileId};
  }
  return Xid{1};
}

inline std::vector<std::string> namesOf(const std::vector<SnapshotListEntry>& entries) {
  std::vector<std::string> names;
  for (const auto& entry : entries) names.push_back(entry.name);
  return names;
}

template <class Backend>
class SnapshotCallsSuite : public ::testing::Test {
 protected:
  SnapshotCalls& calls() { return backend_.calls(); }
  Disks& disks() { return backend_.disks(); }
  std::unique_ptr<OpenVolume> opened() {
    auto volume = calls().open(backend_.mountPoint(), backend_.uuid());
    if (!volume) throw std::runtime_error("open failed: " + std::to_string(volume.error()));
    return std::move(*volume);
  }
  int create(const std::string& name) { return calls().fs_snapshot_create(*opened(), name).error(); }
  int remove(const std::string& name) { return remove(name, xidOf(calls(), *opened(), name)); }
  int remove(const std::string& name, Xid meant) { return calls().fs_snapshot_delete(*opened(), name, meant).error(); }
  int mount(const std::string& directory, const std::string& name) {
    return mount(directory, name, xidOf(calls(), *opened(), name));
  }
  int mount(const std::string& directory, const std::string& name, Xid meant) {
    return calls().fs_snapshot_mount(*opened(), directory, name, meant, snapshotMountFlags).error();
  }
  std::vector<SnapshotListEntry> list() { return listAll(calls(), *opened()); }
  std::vector<std::string> names() { return namesOf(list()); }

  Backend backend_;
};

TYPED_TEST_SUITE_P(SnapshotCallsSuite);

TYPED_TEST_P(SnapshotCallsSuite, SnapshotsAreListedByNameInAscendingOrderOfTheirIdentity) {
  for (const char* name : {"zeta", "alpha", "mid.2026-03-01T09-00-00Z"}) ASSERT_EQ(this->create(name), 0);
  const auto entries = this->list();
  EXPECT_THAT(namesOf(entries), ::testing::ElementsAre("zeta", "alpha", "mid.2026-03-01T09-00-00Z"));
  for (std::size_t i = 0; i < entries.size(); ++i) {
    EXPECT_NE(entries[i].fileId, 0u);
    EXPECT_GT(entries[i].createdSeconds, 0);
    EXPECT_TRUE(i == 0 || entries[i].fileId > entries[i - 1].fileId);
  }
}

TYPED_TEST_P(SnapshotCallsSuite, ANameStandsOnceAndCanBeGivenAnewToAnotherSnapshot) {
  ASSERT_EQ(this->create("twice"), 0);
  EXPECT_EQ(this->create("twice"), EEXIST);
  const auto first = this->list();
  ASSERT_EQ(this->remove("twice"), 0);
  EXPECT_EQ(this->remove("twice"), ENOENT);
  EXPECT_THAT(this->names(), ::testing::IsEmpty());
  ASSERT_EQ(this->create("twice"), 0);
  EXPECT_GT(this->list().at(0).fileId, first.at(0).fileId);
  EXPECT_EQ(this->remove("twice", Xid{first.at(0).fileId}), ENOENT) << "the name is another's now";
  EXPECT_THAT(this->names(), ::testing::SizeIs(1));
}

TYPED_TEST_P(SnapshotCallsSuite, NamesThatNoFileBearsAreRefused) {
  for (const std::string name : {"", ".", "..", "a/b", ":path", "\xFF", "a\nb"}) EXPECT_EQ(this->create(name), EINVAL);
  EXPECT_EQ(this->create(std::string(256, 'n')), ENAMETOOLONG);
  EXPECT_EQ(this->create(std::string(255, 'n')), 0);
}

TYPED_TEST_P(SnapshotCallsSuite, AListingGoesOnWhereTheLastCallStopped) {
  for (const char* name : {"a", "b", "c"}) ASSERT_EQ(this->create(name), 0);
  const auto volume = this->opened();
  std::vector<std::byte> tooSmall(56);
  EXPECT_EQ(this->calls().fs_snapshot_list(*volume, everyAttribute, tooSmall).error(), ERANGE);
  EXPECT_EQ(this->calls().fs_snapshot_list(*volume, {.bitmapCount = 5, .common = 1}, tooSmall).error(), EINVAL);
  EXPECT_THAT(namesOf(listAll(this->calls(), *volume, 80)), ::testing::ElementsAre("a", "b", "c"));
  std::vector<std::byte> buffer(65536);
  const auto after = this->calls().fs_snapshot_list(*volume, everyAttribute, buffer);
  ASSERT_TRUE(after);
  EXPECT_EQ(*after, 0);
}

TYPED_TEST_P(SnapshotCallsSuite, OnlyTheExpectedVolumeIsOpened) {
  const VolumeUuid other("00000000-0000-4000-8000-000000000001");
  EXPECT_EQ(this->calls().open(this->backend_.mountPoint(), other).error(), ESTALE);
  EXPECT_EQ(this->calls().open(this->backend_.mountPoint() + "/nowhere", this->backend_.uuid()).error(), ENOENT);
}

TYPED_TEST_P(SnapshotCallsSuite, AMountedSnapshotIsToldByItsPathAndCanBeNeitherDeletedNorMountedAgain) {
  ASSERT_EQ(this->create("shown"), 0);
  const std::string directory = this->backend_.makeDirectory("shown");
  const auto description = this->disks().describe(this->backend_.mountPoint());
  ASSERT_TRUE(description && description->mediaBsdName);
  ASSERT_EQ(this->mount(directory, "shown"), 0);
  const auto status = this->calls().statfs(directory);
  ASSERT_TRUE(status);
  EXPECT_EQ(status->fstypename, "apfs");
  EXPECT_EQ(status->mntonname, directory);
  EXPECT_EQ(status->mntfromname, "shown@/dev/" + *description->mediaBsdName);
  EXPECT_EQ(status->flags, snapshotMountFlags);
  EXPECT_EQ(this->mount(this->backend_.makeDirectory("again"), "shown"), EBUSY);
  EXPECT_EQ(this->remove("shown"), EBUSY);
  EXPECT_EQ(this->calls().unmount(directory, false).error(), 0);
  EXPECT_EQ(this->calls().unmount(directory, false).error(), EINVAL);
  EXPECT_NE(this->calls().statfs(directory)->mntonname, directory);
  EXPECT_EQ(this->remove("shown"), 0);
  EXPECT_EQ(this->mount(directory, "shown"), ENOENT);
}

TYPED_TEST_P(SnapshotCallsSuite, AForcedUnmountTakesThePathAtOnceAndLetsReadersGoOn) {
  ASSERT_EQ(this->create("busy"), 0);
  const std::string directory = this->backend_.makeDirectory("busy");
  ASSERT_EQ(this->mount(directory, "busy"), 0);
  const auto reader = this->backend_.openReader(directory);
  EXPECT_EQ(this->calls().unmount(directory, false).error(), EBUSY);
  EXPECT_EQ(this->calls().statfs(directory)->mntonname, directory);
  EXPECT_EQ(this->calls().unmount(directory, true).error(), 0);
  EXPECT_NE(this->calls().statfs(directory)->mntonname, directory);
  EXPECT_TRUE(reader->canRead());
}

TYPED_TEST_P(SnapshotCallsSuite, SnapshotsOfOtherProgramsComeGoAndCanBeDeleted) {
  ASSERT_EQ(this->create("ours"), 0);
  this->backend_.makeForeign();
  const auto both = this->names();
  ASSERT_EQ(both.size(), 2u);
  EXPECT_EQ(both[0], "ours");
  EXPECT_TRUE(both[1].starts_with(':')) << both[1];
  EXPECT_EQ(this->remove(both[1]), 0);
  EXPECT_THAT(this->names(), ::testing::ElementsAre("ours"));
  this->backend_.makeForeign();
  this->backend_.removeForeign();
  EXPECT_THAT(this->names(), ::testing::ElementsAre("ours"));
}

TYPED_TEST_P(SnapshotCallsSuite, TheVolumeIsDescribedAsWhatItIs) {
  const std::string mountPoint = this->backend_.mountPoint();
  ASSERT_TRUE(this->disks().startSession());
  const auto paths = this->disks().mountedVolumePaths();
  ASSERT_TRUE(paths);
  EXPECT_EQ(std::count(paths->begin(), paths->end(), mountPoint), 1);
  const auto description = this->disks().describe(mountPoint);
  ASSERT_TRUE(description && description->volumeUuid && description->mediaBsdName);
  EXPECT_EQ(description->volumeKind, "apfs");
  EXPECT_EQ(description->volumePath, mountPoint);
  EXPECT_EQ(description->mediaWritable, true);
  EXPECT_EQ(VolumeUuid(description->volumeUuid->lower()), this->backend_.uuid());
  const auto names = this->disks().mediaBsdNames();
  ASSERT_TRUE(names);
  EXPECT_THAT(*names, ::testing::Contains(*description->mediaBsdName));
  EXPECT_TRUE(this->disks().registryClasses(*description->mediaBsdName));
  EXPECT_FALSE(this->disks().registryClasses("disk999s9"));
  EXPECT_FALSE(this->disks().describe(mountPoint + "/nowhere"));
  const VolumeCapacities capacities = this->disks().capacities(mountPoint);
  const auto status = this->calls().statfs(mountPoint);
  ASSERT_TRUE(status && capacities.total && capacities.available);
  EXPECT_EQ(*capacities.total, status->blocks * status->blockSize);
  EXPECT_EQ(status->flags & mntReadOnly, 0u);
}

REGISTER_TYPED_TEST_SUITE_P(SnapshotCallsSuite, SnapshotsAreListedByNameInAscendingOrderOfTheirIdentity,
                            ANameStandsOnceAndCanBeGivenAnewToAnotherSnapshot, NamesThatNoFileBearsAreRefused,
                            AListingGoesOnWhereTheLastCallStopped, OnlyTheExpectedVolumeIsOpened,
                            AMountedSnapshotIsToldByItsPathAndCanBeNeitherDeletedNorMountedAgain,
                            AForcedUnmountTakesThePathAtOnceAndLetsReadersGoOn,
                            SnapshotsOfOtherProgramsComeGoAndCanBeDeleted, TheVolumeIsDescribedAsWhatItIs);

}  // namespace quillmark::contract
