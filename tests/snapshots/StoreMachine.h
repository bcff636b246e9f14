// StoreLife: the three stores of one life of the helper over what an earlier life left, on plain threads.
//
//   sim::SimVolumes volumes;               // with the volume `data` and the volume `other`
//   addVolumes(volumes);
//   sim::SimPosix disk;
//   { StoreLife life(disk, volumes); life.protect({7}); }
//   EXPECT_EQ(StoreLife(disk, volumes).protectedXids(), (Numbers{7}));
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "platform/Files.h"
#include "platform/linux/Random.h"
#include "platform/linux/Threads.h"
#include "platform/sim/MachineClock.h"
#include "platform/sim/SimPlatform.h"
#include "platform/sim/SimVolumeAttributes.h"
#include "snapshots/SnapshotNamePersistence.h"
#include "snapshots/SnapshotTagStore.h"
#include "snapshots/VolumeProtectionStore.h"
#include "tests/base/Failures.h"

namespace quillmark {

using Numbers = std::set<std::uint64_t>;

class PlainThreads final : public Threads {
 public:
  std::unique_ptr<MutexBackend> makeMutex() override { return os::makeNativeMutexBackend(); }
  std::unique_ptr<ConditionBackend> makeCondition() override { return os::makeNativeConditionBackend(); }
  Clock& clock() override { return clock_; }

 private:
  sim::MachineClock clock_{Date::from1970(1'772'355'600), "UTC"};
};

inline const Uuid dataUuid = *Uuid::parse("00112233-4455-6677-8899-aabbccddeeff");
inline const Uuid otherUuid = *Uuid::parse("ffeeddcc-bbaa-4988-b766-554433221100");
inline const VolumeInfo data{.uuid = dataUuid.upper(), .name = "Data", .mountPoint = "/Volumes/Data"};
inline const VolumeInfo other{.uuid = otherUuid.lower(), .name = "Other", .mountPoint = "/Volumes/Other"};
inline const char* const protectionAttribute = "com.harrowfern.quillmark.protected-xids";
inline const char* const tagAttribute = "com.harrowfern.quillmark.snapshot-tags";

inline void addVolumes(sim::SimVolumes& volumes) {
  volumes.add(sim::makeSimVolume(dataUuid));
  volumes.add(sim::makeSimVolume(otherUuid, "Other", "/Volumes/Other", "disk1s2"));
}

class StoreLife {
 public:
  StoreLife(sim::SimPosix& files, sim::SimVolumes& volumes) : posix(files), attributes(volumes, files) {}

  bool protect(std::uint64_t xid, const VolumeInfo& volume = data) { return setProtected(xid, true, volume); }
  bool unprotect(std::uint64_t xid, const VolumeInfo& volume = data) { return setProtected(xid, false, volume); }
  bool setProtected(std::uint64_t xid, bool isProtected, const VolumeInfo& volume) {
    return protection.setProtected(volume, isProtected, [&] { return std::optional(Xid{xid}); });
  }
  void forget(std::uint64_t xid, const VolumeInfo& volume = data) {
    protection.lock()->forgetDeleted(volume, Xid{xid});
  }
  void migrate(const std::map<std::uint64_t, Xid>& moves, const VolumeInfo& volume = data) {
    protection.migrateIdentities(volume, moves);
  }
  [[nodiscard]] Numbers protectedXids(const VolumeInfo& volume = data) {
    Numbers numbers;
    for (const Xid xid : protection.protectedXIDs(volume)) numbers.insert(xid.value);
    return numbers;
  }
  void tag(std::uint64_t xid, const std::optional<std::string>& text, const VolumeInfo& volume = data) {
    static_cast<void>(tags.setTag(volume, text, [&] { return std::optional(Xid{xid}); }));
  }
  [[nodiscard]] std::map<std::uint64_t, std::string> shownTags(const VolumeInfo& volume = data) {
    std::map<std::uint64_t, std::string> shown;
    for (const auto& [xid, text] : tags.tags(volume)) shown[xid.value] = text;
    return shown;
  }

  // Files and attributes as they stand, "none" where there is nothing.
  [[nodiscard]] std::string file(const std::string& name) {
    return readFile(posix, paths.state(name)).value_or("none");
  }
  void putFile(const std::string& name, std::string_view content) {
    createDirectories(posix, paths.stateDirectory, 0700);
    writeAtomically(posix, random, paths.state(name), content, 0600);
  }
  [[nodiscard]] std::string attribute(const std::string& name) {
    return posix.attributes().value(dataUuid, name).value_or("none");
  }
  void putAttribute(const std::string& name, const std::string& value) {
    posix.attributes().change(dataUuid, name, value);
  }
  void refuseAttributeChanges(int error = EROFS) { attributes.refuseChanges(dataUuid, error); }
  void allowAttributeChanges() { attributes.refuseChanges(dataUuid, 0); }

  sim::SimPosix& posix;
  PlainThreads threads;
  os::LinuxRandom random;  // a life never meets the temporary names of another
  sim::SimPlatformLog log;
  const HostPaths paths = sim::hostPathsUnder(posix.root());
  sim::SimVolumeAttributes attributes;
  VolumeProtectionStore protection{threads, posix, random, log, attributes, paths};
  SnapshotTagStore tags{threads, posix, random, attributes, paths};
  SnapshotNamePersistence names{threads, posix, random, log, paths};
};

// Complains of what a failed replacement left in the state directory.
[[nodiscard]] inline std::string leftovers(StoreLife& life) {
  const auto names = life.posix.list(life.paths.stateDirectory);
  if (!names) return "";
  for (const std::string& name : *names) {
    if (name.find(".tmp.") != std::string::npos) return "left behind: " + name;
  }
  return "";
}

}  // namespace quillmark
