#include "platform/sim/SimDisks.h"

#include <algorithm>

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

class SimLease final : public MountLease {
 public:
  SimLease(SimVolumes& volumes, const Uuid& volume, const std::string& privateRoot, std::shared_ptr<Queue> queue,
           UniqueFunction<void()> onRevoked)
      : delivery_(std::make_shared<os::DiskEventDelivery>(
            std::move(queue), [onRevoked = std::move(onRevoked)](const DiskEvent&) mutable { onRevoked(); })),
        observer_(std::make_shared<SimVolumes::Observer>(
            [&volumes, volume, privateRoot, delivery = delivery_, told = false](const DiskEvent& event) mutable {
              if (told || hasOtherMounts(volumes, volume, privateRoot)) return;
              told = true;
              delivery->deliver(event);
            })) {
    volumes.observe(observer_);
  }
  ~SimLease() override { delivery_->end(); }
  SimLease(const SimLease&) = delete;
  SimLease& operator=(const SimLease&) = delete;

 private:
  static bool hasOtherMounts(SimVolumes& volumes, const Uuid& volume, const std::string& privateRoot) {
    bool isMounted = false;
    volumes.visit([&](const SimVolume& other) { isMounted = isMounted || other.uuid == volume; });
    const auto mounts = volumes.mounts();
    return isMounted || std::any_of(mounts.begin(), mounts.end(), [&](const SimVolumes::Mount& mount) {
             return mount.volume == volume && !mount.directory.starts_with(privateRoot + "/");
           });
  }

  const std::shared_ptr<os::DiskEventDelivery> delivery_;
  const std::shared_ptr<SimVolumes::Observer> observer_;
};

}  // namespace

void SimDisks::at(const std::string& mountPoint, FunctionRef<void(const SimVolume&)> read) {
  bool isFound = false;
  volumes_.visit([&](const SimVolume& volume) {
    if (isFound || volume.mountPoint != mountPoint) return;
    isFound = true;
    read(volume);
  });
}

std::optional<std::vector<std::string>> SimDisks::mountedVolumePaths() {
  if (!hasPaths) return std::nullopt;
  std::vector<std::string> paths;
  volumes_.visit([&](const SimVolume& volume) { paths.push_back(volume.mountPoint); });
  return paths;
}

std::optional<DiskDescription> SimDisks::describe(const std::string& volumePath) {
  std::optional<DiskDescription> description;
  at(volumePath, [&](const SimVolume& volume) { description = volume.description; });
  return description;
}

std::optional<std::vector<std::string>> SimDisks::registryClasses(const std::string& bsdName) {
  std::optional<std::vector<std::string>> classes;
  volumes_.visit([&](const SimVolume& volume) {
    if (hasRegistry && !classes && volume.description.mediaBsdName == bsdName) classes = volume.registryClasses;
  });
  return classes;
}

std::optional<std::vector<std::string>> SimDisks::mediaBsdNames() {
  if (!hasRegistry) return std::nullopt;
  std::vector<std::string> names;
  volumes_.visit([&](const SimVolume& volume) {
    if (volume.description.mediaBsdName) names.push_back(*volume.description.mediaBsdName);
  });
  return names;
}

VolumeCapacities SimDisks::capacities(const std::string& volumePath) {
  VolumeCapacities capacities;
  at(volumePath, [&](const SimVolume& volume) {
    capacities.total = volume.blocks * volume.blockSize;
    capacities.available = volume.availableBlocks * volume.blockSize;
  });
  return capacities;
}

std::unique_ptr<DiskWatch> SimDisks::watch(Dispatch&, std::shared_ptr<Queue> queue, DiskEventHandler handler) {
  if (!canWatch) return nullptr;
  return std::make_unique<SimDiskWatch>(volumes_,
                                        std::make_shared<os::DiskEventDelivery>(std::move(queue), std::move(handler)));
}

std::unique_ptr<MountLease> SimDisks::lease(Dispatch&, std::shared_ptr<Queue> queue, const std::string& mountPoint,
                                            const std::string& privateRoot, UniqueFunction<void()> onRevoked) {
  std::optional<Uuid> volume;
  at(mountPoint, [&](const SimVolume& mounted) { volume = mounted.uuid; });
  if (!canWatch || !volume) return nullptr;
  return std::make_unique<SimLease>(volumes_, *volume, privateRoot, std::move(queue), std::move(onRevoked));
}

}  // namespace quillmark::sim
