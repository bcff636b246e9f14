// SimDisks: disks as the machine's simulated volumes describe them.
// Ownership: borrows the volumes, which must outlive it.
// Threads:   thread-safe; the settings are for the test alone, before others call.
#pragma once

#include "platform/Disks.h"
#include "platform/sim/SimVolumes.h"

namespace quillmark::sim {

class SimDisks final : public Disks {
 public:
  explicit SimDisks(SimVolumes& volumes) : volumes_(volumes) {}

  bool startSession() override { return canStartSession; }
  std::optional<std::vector<std::string>> mountedVolumePaths() override;
  std::optional<DiskDescription> describe(const std::string& volumePath) override;
  std::optional<std::vector<std::string>> registryClasses(const std::string& bsdName) override;
  std::optional<std::vector<std::string>> mediaBsdNames() override;
  VolumeCapacities capacities(const std::string& volumePath) override;
  std::unique_ptr<DiskWatch> watch(Dispatch& dispatch, std::shared_ptr<Queue> queue, DiskEventHandler handler) override;
  // A volume counts as a file system of its own.
  std::unique_ptr<MountLease> lease(Dispatch& dispatch, std::shared_ptr<Queue> queue, const std::string& mountPoint,
                                    const std::string& privateRoot, UniqueFunction<void()> onRevoked) override;

  bool canStartSession = true;
  bool hasPaths = true;
  bool hasRegistry = true;
  bool canWatch = true;

 private:
  // Nothing happens where no volume is mounted.
  void at(const std::string& mountPoint, FunctionRef<void(const SimVolume&)> read);

  SimVolumes& volumes_;
};

}  // namespace quillmark::sim
