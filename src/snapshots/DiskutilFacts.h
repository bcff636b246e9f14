// DiskutilFacts: what two slow diskutil commands tell of containers and volumes.
// Errors: none; what can't be learnt is missing. Takes hostile input.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace quillmark {

class PropertyLists;

struct VolumeEncryptionMeta {
  bool isEncrypted = false;
  bool isFileVault = false;
  bool isLocked = false;
  bool operator==(const VolumeEncryptionMeta&) const = default;
};

struct APFSContainerInfo {
  std::uint64_t total = 0;
  std::uint64_t free = 0;
  std::map<std::string, std::uint64_t> volumeUsage;  // bytes, by BSD name
  std::int64_t visibleVolumeCount = 0;
  std::map<std::string, VolumeEncryptionMeta> volumeMeta;
  bool operator==(const APFSContainerInfo&) const = default;
};

struct DiskutilInfoSummary {
  std::optional<std::string> busProtocol;
  bool isEncryptedThisVolume = false;
  bool operator==(const DiskutilInfoSummary&) const = default;
};

using APFSContainers = std::map<std::string, APFSContainerInfo>;  // by container BSD name

[[nodiscard]] APFSContainers parseContainers(PropertyLists& propertyLists, std::string_view output);
[[nodiscard]] std::optional<DiskutilInfoSummary> parseInfo(PropertyLists& propertyLists, std::string_view output);

// "disk3s1" belongs to "disk3".
[[nodiscard]] std::string containerBSDName(const std::string& bsdName);

}  // namespace quillmark
