// VolumeInfo: a resolved, mounted volume. A plain value.
#pragma once

#include <optional>
#include <string>

#include "base/Uuid.h"

namespace quillmark {

struct VolumeInfo {
  std::string uuid;  // as the caller spelled it
  std::string name;
  std::string bsdName;  // empty when the platform gives none
  std::string mountPoint;
  std::optional<std::string> role;
  bool isAPFSData = false;
  bool isProtected = false;  // the mount demands content protection
  bool isInternalDevice = false;

  [[nodiscard]] VolumeUuid key() const { return VolumeUuid(uuid); }
};

}  // namespace quillmark
