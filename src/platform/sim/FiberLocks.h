// FiberLocks: the mutex and the condition of the simulator. Which waiter goes on is drawn.
// Ownership: share the host of their life.
// Threads:   confined to the simulation's thread.
#pragma once

#include <memory>

#include "platform/sim/LifeHost.h"

namespace quillmark::sim {

[[nodiscard]] std::unique_ptr<MutexBackend> makeFiberMutex(std::shared_ptr<LifeHost> host);
[[nodiscard]] std::unique_ptr<ConditionBackend> makeFiberCondition(std::shared_ptr<LifeHost> host);

}  // namespace quillmark::sim
