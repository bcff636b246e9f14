#include "platform/linux/DispatchQueue.h"

#include <algorithm>
#include <array>

namespace quillmark::os {
namespace {

// Puts a queue on top of the caller's stack of queues.
class FrameScope final {
 public:
  FrameScope(DispatchHost& host, const DispatchQueue& queue, const ItemFrame* below)
      : host_(host), before_(host.frame()), frame_{&queue, below} {
    host_.frame() = &frame_;
  }
  ~FrameScope() { host_.frame() = before_; }
  FrameScope(const FrameScope&) = delete;
  FrameScope& operator=(const FrameScope&) = delete;

 private:
  DispatchHost& host_;
  const ItemFrame* const before_;
  const ItemFrame frame_;
};

}  // namespace

// The caller's place among the running items of a queue, given back at the end.
class DispatchQueue::Turn final {
 public:
  Turn(DispatchQueue& queue, bool barrier) : queue_(queue), barrier_(barrier) { queue_.waitForTurn(barrier); }
  ~Turn() {
    if (auto next = queue_.leave(barrier_)) {
      queue_.host_->submit(
          {std::static_pointer_cast<DispatchQueue>(queue_.shared_from_this()), std::move(next->work), next->barrier});
    }
  }
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;

 private:
  DispatchQueue& queue_;
  const bool barrier_;
};

DispatchQueue::DispatchQueue(std::shared_ptr<DispatchHost> host, QueueOptions options)
    : host_(std::move(host)), options_(std::move(options)),
      width_(options_.concurrent ? std::max(options_.width, 1u) : 1) {}

bool DispatchQueue::isCurrent() const {
  for (const ItemFrame* frame = host_->frame(); frame; frame = frame->below) {
    if (frame->queue == this) return true;
  }
  return false;
}

bool DispatchQueue::mayStart(bool barrier) const {
  return !barrierRuns_ && (barrier ? running_ == 0 : running_ < width_);
}

void DispatchQueue::noteStart(bool barrier) {
  ++running_;
  barrierRuns_ = barrier;
}

void DispatchQueue::put(Work work, bool barrier) {
  if (host_->gone()) return;
  bool starts = false;
  {
    NativeLock lock(mutex_);
    starts = waiting_.empty() && mayStart(barrier);
    if (starts) {
      noteStart(barrier);
    } else {
      waiting_.push_back({std::move(work), nullptr, barrier});
    }
  }
  if (starts) host_->submit({std::static_pointer_cast<DispatchQueue>(shared_from_this()), std::move(work), barrier});
  host_->switchPoint();
}

void DispatchQueue::asyncAfter(std::chrono::nanoseconds delay, Work work) {
  auto queue = std::static_pointer_cast<DispatchQueue>(shared_from_this());
  // Nobody takes the alarm back: it is the item's only way onto the queue.
  static_cast<void>(
      host_->setAlarm(after(host_->clock().monotonic(), delay),
                      [queue = std::move(queue), work = std::move(work)]() mutable { queue->async(std::move(work)); }));
}

void DispatchQueue::runOnCaller(FunctionRef<void()> work, bool barrier) {
  refuseDeadlock();
  if (host_->gone()) return;
  host_->switchPoint();
  const Turn turn(*this, barrier);
  const FrameScope scope(*host_, *this, host_->frame());
  work();
}

void DispatchQueue::waitForTurn(bool barrier) {
  std::unique_ptr<Gate> gate;
  {
    NativeLock lock(mutex_);
    if (waiting_.empty() && mayStart(barrier)) {
      noteStart(barrier);
      return;
    }
    gate = host_->makeGate(*this);
    waiting_.push_back({nullptr, gate.get(), barrier});
  }
  gate->pass();
}

void DispatchQueue::refuseDeadlock() const {
  const ItemFrame* const top = host_->frame();
  for (const ItemFrame* frame = top; frame; frame = frame->below) {
    if (frame->queue == this) dieOfSync(*top->queue, "already in it");
    if (options_.rank != QueueRank::none && frame->queue->options_.rank >= options_.rank) {
      dieOfSync(*frame->queue, "against the rank");
    }
  }
}

void DispatchQueue::dieOfSync(const DispatchQueue& from, const char* reason) const {
  dieSaying(host_->lastWords() + "sync from \"" + from.label() + "\" onto \"" + label() + "\": " + reason);
}

DispatchQueue::Started DispatchQueue::startWaiting() {
  Started started;
  while (!waiting_.empty() && mayStart(waiting_.front().barrier)) {
    Entry entry = std::move(waiting_.front());
    waiting_.pop_front();
    noteStart(entry.barrier);
    if (entry.gate) {
      entry.gate->open();
    } else if (!started.first) {
      started.first = std::move(entry);
    } else {
      started.others.push_back(std::move(entry));
    }
  }
  return started;
}

std::optional<DispatchQueue::Entry> DispatchQueue::leave(bool barrier) {
  Started started;
  {
    NativeLock lock(mutex_);
    --running_;
    if (barrier) barrierRuns_ = false;
    started = startWaiting();
  }
  for (Entry& entry : started.others) {
    host_->submit({std::static_pointer_cast<DispatchQueue>(shared_from_this()), std::move(entry.work), entry.barrier});
  }
  return std::move(started.first);
}

std::optional<ReadyItem> DispatchQueue::run(ReadyItem item) {
  std::shared_ptr<DispatchQueue> queue = std::move(item.queue);
  {
    const FrameScope scope(*queue->host_, *queue, nullptr);
    Work work = std::move(item.work);  // what it captured goes while the item still counts as running
    runOrDie(queue->label(), work, [&] { return queue->host_->lastWords(); });
  }
  auto next = queue->leave(item.barrier);
  if (!next) return std::nullopt;
  return ReadyItem{std::move(queue), std::move(next->work), next->barrier};
}

std::shared_ptr<Queue> makeGlobalQueue(std::shared_ptr<DispatchHost> host, QualityOfService quality) {
  constexpr unsigned globalQueueWidth = 4096;
  static constexpr std::array labels = {"global.userInitiated", "global.utility", "global.background"};
  return std::make_shared<DispatchQueue>(std::move(host),
                                         QueueOptions{.label = labels[static_cast<std::size_t>(quality)],
                                                      .concurrent = true,
                                                      .qualityOfService = quality,
                                                      .width = globalQueueWidth});
}

}  // namespace quillmark::os
