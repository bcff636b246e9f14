// HostExclusions: what no index needs on this kind of machine, whatever the settings say: what changes by itself or by
// this service's own work, what is made anew when it is missing, and what has been thrown away.
// Threads: plain values.
#pragma once

#include <string>
#include <vector>

#include "platform/HostPaths.h"

namespace quillmark {

// Directories; a component "*" stands for any one.
struct HostExclusions {
  std::vector<std::string> paths;      // absolute, whatever volume holds them
  std::vector<std::string> inHomes;    // from a home on
  std::vector<std::string> inVolumes;  // from a volume's root on
  std::vector<std::string> homes;      // where homes lie that the password database needn't list
};

[[nodiscard]] HostExclusions hostExclusions(const HostPaths& paths);

}  // namespace quillmark
