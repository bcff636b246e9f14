#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "platform/Files.h"
#include "platform/linux/DeviceNames.h"
#include "platform/linux/Random.h"
#include "platform/sim/SimPosix.h"

namespace quillmark::os {
namespace {

using Mode = DeviceNames::Mode;

Uuid uuid(std::uint8_t number) {
  Uuid uuid;
  uuid.bytes[0] = number;
  return uuid;
}

class DeviceNamesTest : public ::testing::Test {
 protected:
  std::string path() { return posix.root() + "/shared/devices.json"; }
  void put(const std::string& text) {
    LinuxRandom random;
    createDirectories(posix, posix.root() + "/shared", 0755);
    writeAtomically(posix, random, path(), text, 0644);
  }
  std::string text() { return readFile(posix, path()).value_or("none"); }

  sim::SimPosix posix;
};

TEST_F(DeviceNamesTest, AreGivenOnceInOrderAndReadByOthers) {
  DeviceNames writer(posix, path(), Mode::writer), reader(posix, path(), Mode::reader);
  EXPECT_EQ(reader.volume({uuid(1), uuid(2)}), std::nullopt);
  EXPECT_EQ(writer.givenVolume({uuid(1), uuid(2)}), std::nullopt);
  EXPECT_EQ(writer.volume({uuid(1), uuid(2)}), "disk1s1");
  EXPECT_EQ(writer.volume({uuid(1), uuid(3)}), "disk1s2");
  EXPECT_EQ(writer.disk(uuid(4)), "disk2");
  EXPECT_EQ(writer.volume({uuid(1), uuid(2)}), "disk1s1");
  EXPECT_EQ(reader.volume({uuid(1), uuid(3)}), "disk1s2");
  EXPECT_EQ(reader.volumeNamed("disk1s2")->volume, uuid(3));
  EXPECT_EQ(reader.fileSystemNamed("disk2"), uuid(4));
  for (const char* name : {"", "disk", "disk1", "disk01s1", "disk1s", "disk1s3", "disk1s1s1", "xdisk1s1", "disk1s1 "}) {
    EXPECT_FALSE(reader.volumeNamed(name)) << name;
  }
  EXPECT_EQ(posix.lstat(path())->mode, 0644u);
  EXPECT_EQ(reader.problem(), std::nullopt);
}

TEST_F(DeviceNamesTest, WhatAnAdministratorWroteStaysAndNumbersTakenOutNeverReturn) {
  put(R"({"comment": "mine", "version": 1, "nextDisk": 9, "fileSystems": {"01000000-0000-0000-0000-000000000000":
      {"disk": 3, "nextVolume": 5, "note": [1, 2], "volumes":
        {"02000000-0000-0000-0000-000000000000": {"volume": 1, "role": "Backup", "why": null}}}}})");
  DeviceNames names(posix, path(), Mode::writer);
  EXPECT_EQ(names.role({uuid(1), uuid(2)}), "Backup");
  EXPECT_EQ(names.role({uuid(1), uuid(3)}), std::nullopt);
  EXPECT_EQ(names.volume({uuid(1), uuid(3)}), "disk3s5");
  EXPECT_EQ(names.volume({uuid(2), uuid(3)}), "disk9s1");
  for (const char* kept : {R"("comment":"mine")", R"("note":[1,2])", R"("role":"Backup","why":null)"}) {
    EXPECT_THAT(text(), ::testing::HasSubstr(kept));
  }
  put(R"({"version": 1, "nextDisk": 10, "fileSystems": {}})");
  EXPECT_EQ(names.volume({uuid(1), uuid(2)}), "disk10s1");
}

TEST_F(DeviceNamesTest, AFileThatCantBeUnderstoodGivesNoNameAndIsNeverWrittenOver) {
  const std::string fsid = R"("01000000-0000-0000-0000-000000000000")";
  const std::vector<std::string> damaged = {
      "",
      "{",
      "[]",
      "{}",
      R"({"version": 2, "nextDisk": 1, "fileSystems": {}})",
      R"({"version": 1, "nextDisk": -1, "fileSystems": {}})",
      R"({"version": 1, "nextDisk": 1})",
      R"({"version": 1, "fileSystems": {"x": {"disk": 1, "volumes": {}}}})",
      R"({"version": 1, "fileSystems": {)" + fsid + R"(: 7}})",
      R"({"version": 1, "fileSystems": {)" + fsid + R"(: {"volumes": {}}}})",
      R"({"version": 1, "fileSystems": {)" + fsid + R"(: {"disk": 1.5, "volumes": {}}}})",
      R"({"version": 1, "fileSystems": {)" + fsid + R"(: {"disk": 1, "volumes": {)" + fsid + R"(: {"volume": "1"}}}}})",
      R"({"version": 1, "fileSystems": {)" + fsid +
          R"(: {"disk": 1, "volumes": {}}, "02000000-0000-0000-0000-000000000000": {"disk": 1, "volumes": {}}}})",
      std::string(100'000, '[')};
  for (const std::string& content : damaged) {
    put(content);
    DeviceNames names(posix, path(), Mode::writer);
    EXPECT_EQ(names.volume({uuid(1), uuid(2)}), std::nullopt) << content;
    EXPECT_THAT(names.problem().value_or(""), ::testing::HasSubstr(path()));
    EXPECT_EQ(text(), content);
    put(R"({"version": 1, "fileSystems": {}})");
    EXPECT_EQ(names.volume({uuid(1), uuid(2)}), "disk1s1") << "mended";
    EXPECT_EQ(names.problem(), std::nullopt);
  }
}

// Goal:   a name that was given is the volume's for ever, whatever fails and whenever the power goes.
// Method: fail, or cut the power at, each call in turn while names are given; what the next life finds must hold them.
TEST_F(DeviceNamesTest, AGivenNameOutlivesEveryFaultAndPowerCut) {
  for (const sim::Fault fault : {sim::Fault::fail, sim::Fault::shortWrite, sim::Fault::kill}) {
    bool fired = true;
    for (std::uint64_t call = 1; fired; ++call) {
      ASSERT_LT(call, 200u);
      sim::SimPosix disk;
      const std::string file = disk.root() + "/shared/devices.json";
      DeviceNames names(disk, file, Mode::writer);
      std::map<std::uint8_t, std::string> given;
      disk.setPlan({.seed = call, .fault = fault, .atCall = call});
      try {
        for (std::uint8_t number = 2; number < 6; ++number) {
          if (const auto name = names.volume({uuid(1), uuid(number)})) given[number] = *name;
        }
      } catch (const sim::SimulatedKill&) {
      }
      fired = disk.faultFired();
      EXPECT_TRUE(fault == sim::Fault::kill || given.size() >= 3) << "one fault costs one name at most";
      const auto next = disk.powerCut(call);
      DeviceNames successor(*next, next->root() + "/shared/devices.json", Mode::writer);
      std::map<std::string, std::uint8_t> owner;
      for (std::uint8_t number = 9; number >= 2; --number) {
        const auto name = successor.volume({uuid(1), uuid(number)});
        ASSERT_TRUE(name) << successor.problem().value_or("");
        EXPECT_TRUE(!given.contains(number) || given[number] == *name) << "call " << call;
        EXPECT_TRUE(owner.emplace(*name, number).second) << *name;
      }
    }
  }
}

}  // namespace
}  // namespace quillmark::os
