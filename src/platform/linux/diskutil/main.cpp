// diskutil: the few questions that the service asks of a program, answered over btrfs as property lists.
#include <cstdio>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "platform/HostPaths.h"
#include "platform/linux/DeviceNames.h"
#include "platform/linux/Posix.h"
#include "platform/linux/PropertyList.h"
#include "platform/linux/diskutil/DiskutilCommands.h"

namespace {

using namespace quillmark;

constexpr const char* usage =
    "Usage: diskutil apfs listSnapshots -plist <device>\n"
    "       diskutil apfs list -plist\n"
    "       diskutil info -plist <device or mount point>\n";

// Absent for wrong use.
std::optional<PropertyList> answer(const std::vector<std::string>& arguments, os::DeviceNames& names) {
  const auto is = [&](std::initializer_list<const char*> words, std::size_t more) {
    return arguments.size() == words.size() + more && std::equal(words.begin(), words.end(), arguments.begin());
  };
  if (is({"apfs", "listSnapshots", "-plist"}, 1)) return os::snapshotsOfVolume(names, arguments.back());
  if (is({"apfs", "list", "-plist"}, 0)) return os::containers(names);
  if (is({"info", "-plist"}, 1)) return os::volumeInformation(names, arguments.back());
  return std::nullopt;
}

int run(const std::vector<std::string>& arguments) {
  os::LinuxPosix posix;
  os::DeviceNames names(posix, HostPaths().deviceNames, os::DeviceNames::Mode::reader);
  const auto list = answer(arguments, names);
  if (!list) {
    std::fputs(usage, stderr);
    return 1;
  }
  const std::string text = os::LinuxPropertyLists().write(*list);
  const bool written = std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0;
  return written ? 0 : 1;
}

}  // namespace

int main(int count, char** words) {
  try {
    return run({words + 1, words + count});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "diskutil: %s\n", error.what());
    return 1;
  }
}
