#include "service/StateDirectory.h"

#include <array>

#include "base/Error.h"
#include "platform/Files.h"
#include "platform/posix.h"

namespace quillmark {
namespace {

constexpr std::array files{
    "schedules.json",      "volume-clocks.json", "protected.json",           "settings.json",
    "email.json",          "email-outbox.json",  "notifications-state.json", ".foreign-protection-migrated",
    "snapshot-names.json", "snapshot-tags.json"};
constexpr std::array directories{"snapshot-sizes", "snapshot-xids"};

void tryAttributes(Posix& posix, const std::string& path, std::uint32_t mode) {
  (void)posix.chmod(path, mode);
  (void)posix.chown(path, 0, 0);
}

bool isType(Posix& posix, const std::string& path, FileType type) {
  const auto status = posix.lstat(path);
  return status && status->type == type;
}

// Of a process that was killed while it replaced a store's file.
void sweepTemporaryFiles(Posix& posix, const std::string& path) {
  const auto names = posix.list(path);
  if (!names) return;
  for (const std::string& name : *names) {
    const std::string file = path + "/" + name;
    if (isTemporaryName(name) && isType(posix, file, FileType::regular)) (void)posix.unlink(file);
  }
}

void secureDirectory(Posix& posix, const std::string& path) {
  if (!isType(posix, path, FileType::directory)) return;
  tryAttributes(posix, path, 0700);
  sweepTemporaryFiles(posix, path);
  const auto names = posix.list(path);
  if (!names) return;
  for (const std::string& name : *names) {
    if (isType(posix, path + "/" + name, FileType::regular)) tryAttributes(posix, path + "/" + name, 0600);
  }
}

}  // namespace

void secureStateDirectory(Posix& posix, const HostPaths& paths) {
  try {
    createDirectoriesDurably(posix, paths.stateDirectory, 0700);
  } catch (const Error&) {
  }
  tryAttributes(posix, paths.stateDirectory, 0700);
  if (isType(posix, paths.stateDirectory, FileType::directory)) sweepTemporaryFiles(posix, paths.stateDirectory);
  for (const char* name : files) {
    if (isType(posix, paths.state(name), FileType::regular)) tryAttributes(posix, paths.state(name), 0600);
  }
  for (const char* name : directories) secureDirectory(posix, paths.state(name));
}

}  // namespace quillmark
