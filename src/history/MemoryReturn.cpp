#include "history/MemoryReturn.h"

#include "platform/ThisProcess.h"

namespace quillmark {

// A handler that runs while this goes away touches nothing of it.
MemoryReturn::MemoryReturn(Dispatch& dispatch, ThisProcess& process)
    : sinceLast_(std::make_shared<std::atomic<std::uint64_t>>(0)),
      timer_(
          dispatch.makeTimer(dispatch.global(QualityOfService::utility), [sinceLast = sinceLast_, process = &process] {
            *sinceLast = 0;
            process->giveBackFreeMemory();
          })) {}

void MemoryReturn::released(std::uint64_t entries) {
  if (sinceLast_->fetch_add(entries) + entries >= worthwhile) timer_->fireAfter(settle);
}

}  // namespace quillmark
