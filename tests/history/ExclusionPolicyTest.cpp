#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "history/ExclusionPolicy.h"
#include "platform/sim/SimPlatform.h"
#include "platform/sim/SimVolumes.h"
#include "platform/sim/Simulation.h"
#include "scheduling/rules/PolicySource.h"
#include "snapshots/HomeDirectories.h"

namespace quillmark {
namespace {

struct Settings final : SettingsSource {
  std::optional<HelperSettings> value;
  std::optional<HelperSettings> current() override { return value; }
};

// A volume at each of the places.
struct Machine {
  explicit Machine(const std::vector<std::string>& places) {
    for (const std::string& place : places) {
      Uuid uuid{};
      uuid.bytes[0] = static_cast<std::uint8_t>(++added);
      volumes.add(sim::makeSimVolume(uuid, "V", place, "disk" + std::to_string(added) + "s1"));
    }
  }
  // What a scan of the volume asks of a directory, seen from the volume's root.
  [[nodiscard]] bool leavesOut(const std::string& mountPoint, const std::string& path) const {
    std::vector<std::string> components;
    for (std::size_t at = 1; at < path.size();) {
      const std::size_t end = std::min(path.find('/', at), path.size());
      components.push_back(path.substr(at, end - at));
      at = end + 1;
    }
    return isExcludedDirectory(components.back(), components, policy.rules(mountPoint));
  }

  int added = 0;
  Settings settings;
  sim::Simulation simulation;
  sim::Life& life = simulation.startLife("helper");
  sim::SimVolumes volumes;
  sim::SimPlatform sim{life, volumes};
  HomeDirectories homes{life.dispatch(), sim.users(), sim.snapshots()};
  ExclusionPolicy policy{settings, homes, life.clock(), hostExclusions(HostPaths())};
};

// Goal: what is left out of a volume, by where it is mounted and where people's homes lie.
TEST(ExclusionPolicy, followsTheVolumesPlaceAndTheHomesOnIt) {
  Machine machine({"/", "/home", "/srv/people/ida", "/mnt/data", "/var", "/run/media/disk"});
  machine.sim.users().add(1000, "zoe", "/home/zoe");
  machine.sim.users().add(1001, "ida", "/srv/people/ida");
  machine.sim.users().add(1002, "max", "/opt/people/max");
  struct Case {
    const char* mountPoint;
    const char* directory;
    bool isLeftOut;
  };
  constexpr Case cases[] = {
      // The machine's own places, wherever the volume that holds them is mounted.
      {"/", "/var/log", true},
      {"/", "/var/db", true},
      {"/", "/var/lib/quillmark", true},
      {"/", "/var/lib/postgresql", false},
      {"/", "/proc", true},
      {"/", "/tmp", true},
      {"/", "/etc", false},
      {"/", "/var", false},
      {"/var", "/log", true},
      {"/var", "/tmp", true},
      {"/var", "/lib/docker", true},
      {"/var", "/var/log", false},
      {"/mnt/data", "/tmp", false},
      {"/mnt/data", "/var/log", false},
      {"/mnt/data", "/lost+found", true},
      {"/mnt/data", "/photos/lost+found", false},
      {"/mnt/data", "/.Trash-1001", true},
      {"/mnt/data", "/.Trash-1003", false},
      {"/mnt/data", "/a/b/node_modules", true},
      {"/run/media/disk", "/letters", false},
      // Homes: on their own volume, below the root, on a volume for all of them, and where nobody lists them.
      {"/srv/people/ida", "/.cache", true},
      {"/srv/people/ida", "/.local/share/Trash", true},
      {"/srv/people/ida", "/.cargo", true},
      {"/srv/people/ida", "/letters", false},
      {"/srv/people/ida", "/letters/.cache", false},
      {"/", "/opt/people/max/.cache", true},
      {"/", "/opt/people/max/snap/firefox/1234/.cache", true},
      {"/", "/opt/people/moritz/.cache", false},
      {"/", "/root/.cache", true},
      {"/", "/home/zoe/.npm", true},
      {"/home", "/zoe/.npm", true},
      {"/home", "/not-in-the-database/.var/app/org.mail/cache", true},
      {"/home", "/zoe/.var/app/org.mail/data", false},
      {"/home", "/.npm", false},
  };
  for (const auto& [mountPoint, directory, isLeftOut] : cases) {
    EXPECT_EQ(machine.leavesOut(mountPoint, directory), isLeftOut) << directory << " of " << mountPoint;
  }
}

TEST(ExclusionPolicy, takesOfTheSettingsWhatTheySayNowAndAddsTheMachinesOwn) {
  Machine machine({"/", "/home/zoe"});
  machine.sim.users().add(1000, "zoe", "/home/zoe");
  HelperSettings settings;
  settings.excludedPathRules = {"/scratch", "/Users/*/music"};
  settings.excludedDirectoryNames = {};
  machine.settings.value = settings;
  EXPECT_TRUE(machine.leavesOut("/", "/scratch"));
  EXPECT_TRUE(machine.leavesOut("/home/zoe", "/music"));
  EXPECT_FALSE(machine.leavesOut("/", "/opt"));
  EXPECT_FALSE(machine.leavesOut("/", "/srv/node_modules"));
  EXPECT_TRUE(machine.leavesOut("/", "/var/log")) << "whatever the settings say";
  EXPECT_EQ(machine.policy.rules("").paths.size(), 2u) << "without a mount point there is no machine around it";
}

}  // namespace
}  // namespace quillmark
