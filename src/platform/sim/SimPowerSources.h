// SimPowerSources: power as a test sets it.
// Threads: confined to the simulation's thread.
#pragma once

#include "platform/PowerSources.h"

namespace quillmark::sim {

class SimPowerSources final : public PowerSources {
 public:
  bool isOnACPower() override { return onACPower; }
  bool onACPower = true;
};

}  // namespace quillmark::sim
