#include "platform/sim/LifeHost.h"

#include <utility>

namespace quillmark::sim {
namespace {

class FiberGate final : public os::Gate {
 public:
  FiberGate(Scheduler& scheduler, const os::DispatchQueue& awaited) : scheduler_(scheduler), awaited_(awaited) {}

  void open() override {
    open_ = true;
    if (waiter_) scheduler_.resume(*std::exchange(waiter_, nullptr));
  }
  void pass() override {
    while (!open_) {
      waiter_ = scheduler_.running();
      scheduler_.park({.what = "sync onto", .queue = &awaited_});
    }
  }

 private:
  Scheduler& scheduler_;
  const os::DispatchQueue& awaited_;
  Strand* waiter_ = nullptr;
  bool open_ = false;
};

}  // namespace

std::unique_ptr<os::Gate> LifeHost::makeGate(const os::DispatchQueue& awaited) {
  return std::make_unique<FiberGate>(scheduler_, awaited);
}

os::AlarmId LifeHost::setAlarm(MonotonicTime time, Work work) {
  return isAlive_ ? alarms_.add(time, std::move(work)) : 0;
}

os::AlarmId LifeHost::setAlarm(Date date, Work work) { return isAlive_ ? alarms_.add(date, std::move(work)) : 0; }

void LifeHost::clearAlarm(os::AlarmId alarm) { const Work dropped = alarms_.remove(alarm); }

void LifeHost::runEndings() {
  for (auto& ending : std::exchange(endings_, {})) ending();
}

void LifeHost::lose(std::shared_ptr<LifeHost> host) {
  for (const auto& strand : host->keptStrands_) {
    strand->fiber->abandon();
    strand->fiber.reset();
  }
  loseOnPurpose(new std::shared_ptr<LifeHost>(std::move(host)));
}

}  // namespace quillmark::sim
