// SimVolumeAttributes: attributes of the machine's simulated volumes. They are kept with the files: under the same plan
// of faults, with the same kills and power cuts.
// Ownership: borrows both, which must outlive it and what it opened.
// Threads:   confined to the simulation's thread, as the files are.
#pragma once

#include <map>

#include "platform/VolumeAttributes.h"
#include "platform/sim/SimPosix.h"
#include "platform/sim/SimVolumes.h"

namespace quillmark::sim {

class SimVolumeAttributes final : public VolumeAttributes {
 public:
  SimVolumeAttributes(SimVolumes& volumes, SimPosix& files) : volumes_(volumes), files_(files) {}

  SysResult<std::unique_ptr<OpenVolumeAttributes>> open(const std::string& mountPoint,
                                                        const VolumeUuid& expected) override;

  // Every change of the volume's attributes fails so; 0: no longer.
  void refuseChanges(const Uuid& volume, int error) { refused_[volume] = error; }

 private:
  class Open;

  SimVolumes& volumes_;
  SimPosix& files_;
  std::map<Uuid, int> refused_;
};

}  // namespace quillmark::sim
