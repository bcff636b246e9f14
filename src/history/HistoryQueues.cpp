#include "history/HistoryQueues.h"

namespace quillmark {
namespace {

// Those that wait for their turn to scan stand in the epoch too, and registering a snapshot must not wait for them.
constexpr unsigned mostVolumesAtOnce = 100'000;

constexpr std::string_view prefix = "com.harrowfern.quillmark.history.";

std::shared_ptr<Queue> serialQueue(Dispatch& dispatch, std::string_view name,
                                   QualityOfService quality = QualityOfService::userInitiated,
                                   QueueRank rank = QueueRank::none) {
  return dispatch.makeQueue(
      {.label = std::string(prefix).append(name), .concurrent = false, .qualityOfService = quality, .rank = rank});
}

}  // namespace

HistoryQueues::HistoryQueues(Dispatch& dispatch)
    : timer(serialQueue(dispatch, "timer", QualityOfService::utility)),
      progressPush(serialQueue(dispatch, "progress-push")), rebuild(serialQueue(dispatch, "rebuild")),
      globalIndex(serialQueue(dispatch, "globalIndex")), lease(serialQueue(dispatch, "lease")), dispatch_(dispatch),
      epoch_(dispatch.makeQueue({.label = std::string(prefix) + "epoch",
                                 .concurrent = true,
                                 .width = mostVolumesAtOnce,
                                 .rank = QueueRank::epoch})),
      volumes_(dispatch) {}

void HistoryQueues::drain() {
  for (const auto& queue : {timer, globalIndex, rebuild}) queue->sync([] {});
  // Those may have begun work on further volumes.
  std::vector<std::shared_ptr<Queue>> rest;
  volumes_.with([&](auto& volumes) {
    for (const auto& [volume, queue] : volumes) rest.push_back(queue);
  });
  rest.push_back(progressPush);
  rest.push_back(lease);
  for (const auto& queue : rest) queue->sync([] {});
}

std::shared_ptr<Queue> HistoryQueues::queue(const VolumeUuid& volume) {
  return volumes_.with([&](auto& volumes) {
    std::shared_ptr<Queue>& slot = volumes[volume];
    if (!slot) slot = serialQueue(dispatch_, volume.text(), QualityOfService::userInitiated, QueueRank::volume);
    return slot;
  });
}

void HistoryQueues::onVolume(const VolumeUuid& volume, FunctionRef<void()> work) {
  const std::shared_ptr<Queue> own = queue(volume);
  if (own->isCurrent()) return inEpoch(work);
  own->sync([&] { inEpoch(work); });
}

void HistoryQueues::inEpoch(FunctionRef<void()> work) {
  if (epoch_->isCurrent()) return work();
  epoch_->sync(work);
}

void HistoryQueues::alone(FunctionRef<void()> work) { epoch_->syncBarrier(work); }

}  // namespace quillmark
