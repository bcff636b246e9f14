#include "platform/linux/identity/IdentityThreads.h"

#include "base/Error.h"

namespace quillmark::os {

IdentityThreads::IdentityThreads(Dispatch& dispatch, Limits limits) : dispatch_(dispatch), limits_(limits) {}

unsigned IdentityThreads::running() const {
  NativeLock lock(slots_->mutex);
  return slots_->running;
}

bool IdentityThreads::takeSlot(MonotonicTime deadline) {
  NativeLock lock(slots_->mutex);
  while (slots_->running >= limits_.most) {
    if (!slots_->changed.waitUntil(slots_->mutex, deadline)) return false;
  }
  ++slots_->running;
  return true;
}

void IdentityThreads::giveBack(Slots& slots) {
  NativeLock lock(slots.mutex);
  --slots.running;
  slots.changed.notifyOne();
}

bool IdentityThreads::runWork(Work work) {
  const MonotonicTime deadline = after(monotonicNow(), limits_.patience);
  if (!takeSlot(deadline)) return false;
  const auto outcome = std::make_shared<Outcome>();
  try {
    dispatch_.throwAwayThread("com.harrowfern.quillmark.helper.identity",
                              [outcome, slots = slots_, work = std::move(work)]() mutable {
                                work();
                                work = nullptr;
                                giveBack(*slots);
                                NativeLock lock(outcome->mutex);
                                outcome->done = true;
                                outcome->changed.notifyAll();
                              });
  } catch (const Error&) {
    giveBack(*slots_);
    return false;
  }
  NativeLock lock(outcome->mutex);
  while (!outcome->done) {
    if (!outcome->changed.waitUntil(outcome->mutex, deadline)) return outcome->done;
  }
  return true;
}

}  // namespace quillmark::os
