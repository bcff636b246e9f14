#include "QuillWorld.h"
#include "quill/Failures.h"
#include "quill/VolumeChoice.h"

namespace quillmark::cli {
namespace {

using testing::HasSubstr;
using Kind = Place::Kind;

FakeVolumes twoVolumes() {
  FakeVolumes volumes;
  volumes.volumes = {volumeNamed("Data", dataUUID, "disk1s1", "/mnt/data"),
                     volumeNamed("home", homeUUID, "disk1s2", "/home")};
  volumes.places = {{"/mnt/data/a/b", {Kind::volumes, {"/mnt/data"}}},      {".", {Kind::volumes, {"/home"}}},
                    {"/dev/sda2", {Kind::volumes, {"/mnt/data", "/home"}}}, {"/dev/sdb1", {Kind::volumes, {"/home"}}},
                    {"/mnt/data/nested", {Kind::nestedSubvolume, {}}},      {"/tmp", {Kind::elsewhere, {}}},
                    {"/mnt/unlisted", {Kind::volumes, {"/mnt/unlisted"}}}};
  return volumes;
}

struct Case {
  const char* text;
  std::string expected;  // the UUID, or what the failure says
  int exitCode = 0;
};

void expectChoice(LocalVolumes& volumes, const std::optional<std::string>& text, const Case& wanted) {
  try {
    EXPECT_EQ(chooseVolume(volumes, text), wanted.expected) << wanted.text;
  } catch (const Error& error) {
    EXPECT_THAT(error.description(), HasSubstr(wanted.expected)) << wanted.text;
    EXPECT_EQ(exitCodeOf(error), wanted.exitCode) << wanted.text;
    EXPECT_THAT(error.recoverySuggestion(), HasSubstr("Data (disk1s1, /mnt/data)")) << wanted.text;
  }
}

TEST(VolumeChoice, takesNamesUUIDsDevicesAndPaths) {
  FakeVolumes volumes = twoVolumes();
  const std::string unseen = "00000000-0000-0000-0000-000000000001";
  const Case cases[] = {
      {"a9be83c9-2a01-4f91-bdff-297973e90a78", "a9be83c9-2a01-4f91-bdff-297973e90a78"},
      {unseen.c_str(), unseen},
      {"Data", dataUUID},
      {"data", dataUUID},
      {"home", homeUUID},
      {"disk1s2", homeUUID},
      {"/dev/disk1s2", homeUUID},
      {"/dev/sdb1", homeUUID},
      {"/mnt/data/a/b", dataUUID},
      {".", homeUUID},
      {"/dev/sda2", "means 2 volumes", exitWrongUse},
      {"/mnt/data/nested", "isn't mounted by itself", exitFailed},
      {"/tmp", "on no volume", exitFailed},
      {"/mnt/unlisted", "on no volume", exitFailed},
      {"nope", "There is no volume \"nope\"", exitFailed},
      {"", "There is no volume", exitFailed},
  };
  for (const Case& wanted : cases) expectChoice(volumes, wanted.text, wanted);
}

TEST(VolumeChoice, aNameAndAnotherVolumesDeviceAreAmbiguous) {
  FakeVolumes volumes = twoVolumes();
  volumes.volumes[1].name = "disk1s1";
  expectChoice(volumes, "disk1s1", {"disk1s1", "means 2 volumes", exitWrongUse});
  volumes.volumes[1].name = "Data";
  expectChoice(volumes, "Data", {"Data", "means 2 volumes", exitWrongUse});
}

TEST(VolumeChoice, withoutATextTheDirectoryDecidesOrThereBeingJustOne) {
  FakeVolumes volumes = twoVolumes();
  volumes.current = {Kind::volumes, {"/home"}};
  expectChoice(volumes, std::nullopt, {"in a volume", homeUUID});
  volumes.current = {Kind::elsewhere, {}};
  expectChoice(volumes, std::nullopt, {"elsewhere", "Which volume?", exitWrongUse});
  volumes.volumes.pop_back();
  expectChoice(volumes, std::nullopt, {"elsewhere, one volume", dataUUID});
  volumes.current = {Kind::nestedSubvolume, {}};
  expectChoice(volumes, std::nullopt, {"left out of the one volume's snapshots", "The current directory", exitFailed});
}

TEST(VolumeChoice, aMachineWithoutVolumesIsToldSo) {
  FakeVolumes volumes;
  try {
    (void)chooseVolume(volumes, std::nullopt);
    FAIL() << "chosen";
  } catch (const Error& error) {
    EXPECT_THAT(error.recoverySuggestion(), HasSubstr("No btrfs volume is mounted"));
  }
}

}  // namespace
}  // namespace quillmark::cli
