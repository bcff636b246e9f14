// APFSVolume: one volume of the inventory, with capacity and container facts. A plain value; JSON: wire/Json.h.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quillmark {

struct APFSVolume {
  std::string id;  // volume UUID, upper case
  std::string name;
  std::string bsdName;
  std::optional<std::string> mountPath;
  std::optional<std::string> role;
  bool isAPFSData = false;
  bool isProtected = false;
  std::uint64_t totalBytes = 0;
  std::uint64_t usedBytes = 0;
  std::uint64_t availableBytes = 0;
  std::optional<std::string> deviceName;
  std::optional<std::string> connectionBus;
  bool isInternal = false;
  std::string volumeType;
  std::int64_t containerVolumeCount = 1;
  std::optional<std::uint64_t> ownUsedBytes;           // of its container
  std::optional<std::uint64_t> otherVolumesUsedBytes;  // by the container's other volumes
  bool isEncrypted = false;
  bool isFileVault = false;
  bool isLocked = false;
  bool operator==(const APFSVolume&) const = default;
};

}  // namespace quillmark
