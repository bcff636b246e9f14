#include "snapshots/DiskutilFacts.h"

#include <algorithm>

#include "base/Error.h"
#include "platform/PropertyList.h"

namespace quillmark {
namespace {

std::optional<PropertyList> parseDictionary(PropertyLists& propertyLists, std::string_view output) {
  try {
    PropertyList root = propertyLists.parse(output);
    if (root.dictionary()) return root;
  } catch (const Error&) {
  }
  return std::nullopt;
}

const std::string* stringAt(const PropertyList& list, std::string_view key) {
  const PropertyList* found = list.find(key);
  return found ? found->string() : nullptr;
}

std::uint64_t numberAt(const PropertyList& list, std::string_view key) {
  const PropertyList* found = list.find(key);
  return found ? found->unsignedNumber().value_or(0) : 0;
}

bool booleanAt(const PropertyList& list, std::string_view key) {
  const PropertyList* found = list.find(key);
  return found && found->boolean() && *found->boolean();
}

// Volumes that serve the machine rather than its people.
bool isHiddenRole(const PropertyList& role) {
  const std::string* word = role.string();
  return word && (*word == "iSCPreboot" || *word == "xART" || *word == "Hardware");
}

bool isVisible(const PropertyList& volume) {
  const PropertyList* roles = volume.find("Roles");
  return !roles || !roles->array() || std::none_of(roles->array()->begin(), roles->array()->end(), isHiddenRole);
}

APFSContainerInfo containerFrom(const PropertyList& container) {
  APFSContainerInfo info;
  info.total = numberAt(container, "CapacityCeiling");
  info.free = numberAt(container, "CapacityFree");
  const PropertyList* volumes = container.find("Volumes");
  if (!volumes || !volumes->array()) return info;
  for (const PropertyList& volume : *volumes->array()) {
    const std::string* device = stringAt(volume, "DeviceIdentifier");
    if (!device) continue;
    info.volumeUsage[*device] = numberAt(volume, "CapacityInUse");
    info.volumeMeta[*device] = {booleanAt(volume, "Encryption"), booleanAt(volume, "FileVault"),
                                booleanAt(volume, "Locked")};
    if (isVisible(volume)) ++info.visibleVolumeCount;
  }
  return info;
}

}  // namespace

APFSContainers parseContainers(PropertyLists& propertyLists, std::string_view output) {
  APFSContainers containers;
  const std::optional<PropertyList> root = parseDictionary(propertyLists, output);
  const PropertyList* list = root ? root->find("Containers") : nullptr;
  if (!list || !list->array()) return containers;
  for (const PropertyList& container : *list->array()) {
    if (const std::string* reference = stringAt(container, "ContainerReference")) {
      containers[*reference] = containerFrom(container);
    }
  }
  return containers;
}

std::optional<DiskutilInfoSummary> parseInfo(PropertyLists& propertyLists, std::string_view output) {
  const std::optional<PropertyList> root = parseDictionary(propertyLists, output);
  if (!root) return std::nullopt;
  DiskutilInfoSummary summary;
  const std::string* bus = stringAt(*root, "BusProtocol");
  if (bus && !bus->empty() && *bus != "Disk Image") summary.busProtocol = *bus;
  summary.isEncryptedThisVolume = booleanAt(*root, "EncryptionThisVolumeProper");
  return summary;
}

std::string containerBSDName(const std::string& bsdName) {
  const auto lastOther = bsdName.find_last_not_of("0123456789");
  const bool endsInSlice =
      lastOther != std::string::npos && lastOther + 1 < bsdName.size() && bsdName[lastOther] == 's';
  return endsInSlice ? bsdName.substr(0, lastOther) : bsdName;
}

}  // namespace quillmark
