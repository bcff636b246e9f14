#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "TemporaryDirectory.h"
#include "platform/linux/PowerSources.h"

namespace quillmark::os {
namespace {

namespace fs = std::filesystem;
using Supply = std::map<std::string, std::string>;

const Supply adapterIn{{"type", "Mains"}, {"online", "1"}};
const Supply adapterOut{{"type", "Mains"}, {"online", "0"}};
const Supply usbFast{{"type", "USB"}, {"online", "2"}};
const Supply portOut{{"type", "USB"}, {"online", "0"}};
const Supply charging{{"type", "Battery"}, {"scope", "System"}, {"status", "Charging"}};
const Supply discharging{{"type", "Battery"}, {"status", "Discharging"}};
const Supply mouse{{"type", "Battery"}, {"scope", "Device"}, {"status", "Discharging"}};

TEST(LinuxPowerSources, OnlyADischargingBatteryWithoutAPlugIsBatteryPower) {
  const struct {
    std::vector<Supply> supplies;
    bool onACPower;
  } cases[] = {
      {{}, true},
      {{adapterIn}, true},
      {{adapterIn, charging}, true},
      {{adapterOut, discharging}, false},
      {{discharging}, false},
      {{adapterOut, discharging, usbFast}, true},
      {{charging, discharging, adapterOut}, false},
      {{charging}, true},
      {{mouse}, true},
      {{mouse, adapterIn}, true},
      {{portOut}, true},  // a desktop with a port that nothing is plugged into
      {{{{"type", "Battery"}}}, true},
  };
  const TemporaryDirectory temporary;
  const fs::path root = temporary.path() + "/power_supply";
  for (const auto& [supplies, onACPower] : cases) {
    fs::remove_all(root);
    fs::create_directories(root);
    int number = 0;
    for (const Supply& supply : supplies) {
      const fs::path directory = root / std::to_string(number++);
      fs::create_directory(directory);
      for (const auto& [property, value] : supply) std::ofstream(directory / property) << value << "\n";
    }
    EXPECT_EQ(LinuxPowerSources(root).isOnACPower(), onACPower) << ::testing::PrintToString(supplies);
  }
  fs::remove_all(root);
  EXPECT_TRUE(LinuxPowerSources(root).isOnACPower()) << "no such class at all";
}

}  // namespace
}  // namespace quillmark::os
