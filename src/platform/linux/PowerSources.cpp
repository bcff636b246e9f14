#include "platform/linux/PowerSources.h"

#include <filesystem>
#include <fstream>

namespace quillmark::os {
namespace {

std::string valueOf(const std::filesystem::path& supply, const char* property) {
  std::ifstream file(supply / property);
  std::string line;
  std::getline(file, line);
  return line;
}

}  // namespace

bool LinuxPowerSources::isOnACPower() {
  bool isDischarging = false;
  std::error_code failure;
  std::filesystem::directory_iterator supply(directory_, failure);
  for (; !failure && supply != std::filesystem::directory_iterator(); supply.increment(failure)) {
    // A mouse's battery says nothing of the machine.
    if (valueOf(*supply, "scope") == "Device") continue;
    if (valueOf(*supply, "type") == "Battery") {
      isDischarging |= valueOf(*supply, "status") == "Discharging";
    } else if (const std::string online = valueOf(*supply, "online"); !online.empty() && online != "0") {
      return true;
    }
  }
  return !isDischarging;
}

}  // namespace quillmark::os
