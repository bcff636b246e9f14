#include "platform/sim/SimDisks.h"

#include "platform/linux/DiskEventDelivery.h"

namespace quillmark::sim {
namespace {

class SimDiskWatch final : public DiskWatch {
 public:
  SimDiskWatch(SimVolumes& volumes, std::shared_ptr<os::DiskEventDelivery> delivery)
      : delivery_(std::move(delivery)), observer_(std::make_shared<SimVolumes::Observer>(
                                            [events = delivery_](const DiskEvent& event) { events->deliver(event); })) {
    volumes.observe(observer_);
  }
  ~SimDiskWatch() override { delivery_->end(); }
  SimDiskWatch(const SimDiskWatch&) = delete;
  SimDiskWatch& operator=(const SimDiskWatch&) = delete;

 private:
  const std::shared_ptr<os::DiskEventDelivery> delivery_;
  const std::shared_ptr<SimVolumes::Observer> observer_;
};

}  // namespace

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

std::unique_ptr<DiskWatch> SimDisks::watch(Dispatch&, std::shared_ptr<Queue> queue, DiskEventHandler handler) {
  if (!canWatch) return nullptr;
  return std::make_unique<SimDiskWatch>(volumes_,
                                        std::make_shared<os::DiskEventDelivery>(std::move(queue), std::move(handler)));
}

}  // namespace quillmark::sim
