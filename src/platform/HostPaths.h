// HostPaths: every absolute path of the system, in one table. Under a prefix in tests.
// Threads: immutable.
#pragma once

#include <string>

namespace quillmark {

struct HostPaths {
  std::string stateDirectory = "/var/db/com.harrowfern.Quillmark";
  std::string sharedDirectory = "/var/lib/quillmark";
  std::string deviceNames = "/var/lib/quillmark/devices.json";
  std::string helperLog = "/var/log/com.harrowfern.quillmark.helper.log";
  std::string runDirectory = "/run/com.harrowfern.quillmark";
  std::string socket = "/run/com.harrowfern.quillmark/helper.sock";
  std::string privateMountRoot = "/run/com.harrowfern.quillmark/mounts";
  std::string userMountRoot = "/Volumes";
  // The program beside the helper.
  std::string diskutil;

  [[nodiscard]] std::string state(const std::string& name) const { return stateDirectory + "/" + name; }
};

}  // namespace quillmark
