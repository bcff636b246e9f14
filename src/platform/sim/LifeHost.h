// LifeHost: what the queues, timers and locks of one simulated process stand on.
// Ownership: shared by them. Once frozen it keeps all that belonged to the life.
// Threads:   confined to the simulation's thread.
#pragma once

#include <string>
#include <vector>

#include "platform/linux/TimerAlarms.h"
#include "platform/sim/Scheduler.h"

namespace quillmark::sim {

class LifeHost final : public os::DispatchHost {
 public:
  LifeHost(Scheduler& scheduler, std::string name, int pid)
      : scheduler_(scheduler), name_(std::move(name)), pid_(pid) {}

  void submit(os::ReadyItem item) override { scheduler_.assign(*this, {std::move(item), nullptr}); }
  [[nodiscard]] std::unique_ptr<os::Gate> makeGate(const os::DispatchQueue& awaited) override;
  [[nodiscard]] const os::ItemFrame*& frame() override { return scheduler_.frame(); }
  [[nodiscard]] os::AlarmId setAlarm(MonotonicTime time, Work work) override;
  [[nodiscard]] os::AlarmId setAlarm(Date date, Work work) override;
  void clearAlarm(os::AlarmId alarm) override;
  [[nodiscard]] Clock& clock() override { return scheduler_.clock(); }
  [[nodiscard]] bool gone() const override { return !isAlive_; }
  void switchPoint() override { scheduler_.maybeYield(); }
  [[nodiscard]] std::string lastWords() const override { return scheduler_.seedLine(); }

  [[nodiscard]] const std::string& name() const { return name_; }
  [[nodiscard]] int pid() const { return pid_; }
  [[nodiscard]] Life* life() const { return life_; }
  void setLife(Life* life) { life_ = life; }
  [[nodiscard]] Scheduler& scheduler() { return scheduler_; }
  [[nodiscard]] os::TimerAlarms& alarms() { return alarms_; }
  void addEnding(UniqueFunction<void()> work) { endings_.push_back(std::move(work)); }
  void dropEndings() { endings_.clear(); }
  void runEndings();

  // Assignments and strands that have not come to their end.
  void countOne() { ++active_; }
  void discountOne() { --active_; }
  [[nodiscard]] bool isActive() const { return active_ > 0; }

  // Nothing of it runs from now on.
  void leaveSimulation() { isAlive_ = false; }
  // It was killed: what it holds is never unwound.
  void freeze() { isFrozen_ = true; }
  [[nodiscard]] bool isFrozen() const { return isFrozen_; }
  void keep(Runnable runnable) { keptRunnables_.push_back(std::move(runnable)); }
  void keep(std::unique_ptr<Strand> strand) { keptStrands_.push_back(std::move(strand)); }
  void keep(Work work) { keptWork_.push_back(std::move(work)); }
  // For a frozen one, when the simulation ends: gives back the stacks and loses the rest, which nobody may unwind.
  static void lose(std::shared_ptr<LifeHost> host);

 private:
  Scheduler& scheduler_;
  const std::string name_;
  const int pid_;
  Life* life_ = nullptr;
  bool isAlive_ = true;
  bool isFrozen_ = false;
  std::size_t active_ = 0;
  os::TimerAlarms alarms_;
  std::vector<UniqueFunction<void()>> endings_;
  std::vector<Runnable> keptRunnables_;
  std::vector<std::unique_ptr<Strand>> keptStrands_;
  std::vector<Work> keptWork_;
};

}  // namespace quillmark::sim
