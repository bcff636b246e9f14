#include "platform/sim/SimDisks.h"

namespace quillmark::sim {

std::optional<SimVolume> SimDisks::at(const std::string& mountPoint) {
  for (SimVolume& volume : volumes_.volumes()) {
    if (volume.mountPoint == mountPoint) return std::move(volume);
  }
  return std::nullopt;
}

std::optional<std::vector<std::string>> SimDisks::mountedVolumePaths() {
  if (!hasPaths) return std::nullopt;
  std::vector<std::string> paths;
  for (const SimVolume& volume : volumes_.volumes()) paths.push_back(volume.mountPoint);
  return paths;
}

std::optional<DiskDescription> SimDisks::describe(const std::string& volumePath) {
  auto volume = at(volumePath);
  if (!volume) return std::nullopt;
  return std::move(volume->description);
}

std::optional<std::vector<std::string>> SimDisks::registryClasses(const std::string& bsdName) {
  for (SimVolume& volume : volumes_.volumes()) {
    if (hasRegistry && volume.description.mediaBsdName == bsdName) return std::move(volume.registryClasses);
  }
  return std::nullopt;
}

std::optional<std::vector<std::string>> SimDisks::mediaBsdNames() {
  if (!hasRegistry) return std::nullopt;
  std::vector<std::string> names;
  for (const SimVolume& volume : volumes_.volumes()) {
    if (volume.description.mediaBsdName) names.push_back(*volume.description.mediaBsdName);
  }
  return names;
}

VolumeCapacities SimDisks::capacities(const std::string& volumePath) {
  const auto volume = at(volumePath);
  if (!volume) return {};
  return {.total = volume->blocks * volume->blockSize,
          .available = volume->availableBlocks * volume->blockSize,
          .availableForImportantUsage = std::nullopt};
}

}  // namespace quillmark::sim
