#include "scheduling/Scheduler.h"

#include <cmath>

#include "base/HelperLog.h"
#include "platform/PlatformLog.h"
#include "scheduling/SchedulePersistence.h"
#include "scheduling/VolumeClockPersistence.h"
#include "snapshots/LogNames.h"
#include "snapshots/VolumeQueueRegistry.h"

namespace quillmark {
namespace {

constexpr Seconds tickInterval{60};
constexpr Seconds afterTheMinute{0.2};
constexpr Seconds firstFreeSpaceTick{5};
constexpr std::uint64_t ticksPerSweep = 5;

Date firstTick(Date now) { return Date::from1970((std::floor(now.secondsSince1970() / 60) + 1) * 60) + afterTheMinute; }

}  // namespace

std::shared_ptr<Scheduler> Scheduler::make(SchedulerServices services) {
  return std::shared_ptr<Scheduler>(new Scheduler(std::move(services)));
}

Scheduler::Scheduler(SchedulerServices services)
    : services_(std::move(services)),
      queue_(services_.dispatch.makeQueue({.label = "com.harrowfern.quillmark.scheduler",
                                           .concurrent = false,
                                           .qualityOfService = QualityOfService::utility})),
      gate_(services_), audit_(services_), events_(services_.dispatch, services_.random, services_.notifier),
      attempts_(services_.dispatch), generations_(services_.dispatch), meter_(services_, gate_),
      deleter_(services_, gate_, audit_), taker_(services_, meter_, attempts_, events_, audit_),
      rotation_(services_, gate_, deleter_, events_),
      volumePass_(services_, attempts_, generations_, taker_, rotation_), lifespanSweep_(services_, deleter_, events_),
      lowSpacePass_(services_, gate_, meter_, deleter_, events_), diskEvents_(services_), timers_(services_.dispatch),
      waitingJobs_(services_.dispatch), freeSpaceWatch_(services_, gate_, meter_) {}

Scheduler::~Scheduler() = default;

void Scheduler::log(std::string_view message) {
  services_.platformLog.log(PlatformLogType::normal, LogNames::subsystem, schedulerLogCategory, message);
}

void Scheduler::start() {
  startTimer();
  startFreeSpaceTimer();
  startDiskEvents();
  log("scheduler started");
}

Work Scheduler::weakly(void (Scheduler::*step)()) {
  return [weak = weak_from_this(), step] {
    if (const auto self = weak.lock()) (self.get()->*step)();
  };
}

void Scheduler::startTimer() {
  timers_.with([&](Timers& timers) {
    if (timers.tick) return;
    timers.tick = services_.dispatch.makeTimer(queue_, weakly(&Scheduler::tick));
    timers.tick->fireAt(firstTick(services_.dispatch.clock().now()), tickInterval);
  });
}

// By the wall clock, so that the next tick after a sleep comes when clients were told.
void Scheduler::startFreeSpaceTimer() {
  timers_.with([&](Timers& timers) {
    if (timers.freeSpace) return;
    timers.freeSpace = services_.dispatch.makeTimer(queue_, weakly(&Scheduler::timedFreeSpaceTick));
    timers.freeSpace->fireAt(services_.dispatch.clock().now() + firstFreeSpaceTick, FreeSpaceMeter::tickInterval);
  });
}

void Scheduler::startDiskEvents() {
  if (timers_.with([](const Timers& timers) { return timers.disks != nullptr; })) return;
  auto watch = services_.disks.watch(services_.dispatch, queue_, [weak = weak_from_this()](const DiskEvent& event) {
    if (const auto self = weak.lock()) self->diskEvent(event);
  });
  if (!watch) services_.log.warn("Disk events are not available; volumes are looked at by the timers alone");
  timers_.with([&](Timers& timers) { timers.disks = std::move(watch); });
}

void Scheduler::stop() {
  timers_.with([](Timers& timers) {
    timers.tick.reset();
    timers.freeSpace.reset();
  });
  log("scheduler stopped");
}

std::uint64_t Scheduler::currentGeneration(const std::string& volumeUUID) {
  return generations_.current(VolumeUuid(volumeUUID));
}

void Scheduler::bumpGeneration(const std::string& volumeUUID) { generations_.bump(VolumeUuid(volumeUUID)); }

void Scheduler::tick() {
  ++tickCounter_;
  if (services_.schedules.loadFailureDescription()) return;
  const std::vector<APFSVolume> volumes = services_.volumeList();
  for (const APFSVolume& volume : volumes) {
    services_.clocks.noteSeen(VolumeUuid(volume.id), services_.dispatch.clock().now());
  }
  if (tickCounter_ % ticksPerSweep == 1) sweepAll(volumes);
  passAll(volumes);
}

void Scheduler::sweepAll(const std::vector<APFSVolume>& volumes) {
  for (const APFSVolume& listed : volumes) {
    const auto volume = schedulableVolume(services_.apfs, listed.id);
    if (!volume || services_.schedules.policy(volume->key()).tracked == false) continue;
    services_.clocks.noteSeen(volume->key(), services_.dispatch.clock().now());
    onVolume(listed.id, Job::lifespanSweep, [this, volume = *volume] { lifespanSweep_.run(volume); });
  }
}

void Scheduler::passAll(const std::vector<APFSVolume>& volumes) {
  const Date began = services_.dispatch.clock().now();
  std::map<std::string, std::string> idByUuid;
  for (const APFSVolume& volume : volumes) idByUuid.emplace(VolumeUuid(volume.id).text(), volume.id);
  for (const auto& [uuid, policy] : services_.schedules.allPolicies()) {
    const auto listed = idByUuid.find(uuid);
    if (listed == idByUuid.end() || policy.tracked == false) continue;
    const auto volume = schedulableVolume(services_.apfs, listed->second);
    if (!volume) continue;
    onVolume(uuid, Job::volumePass,
             [this, volume = *volume, policy = policy, began] { volumePass_.run(volume, policy, began); });
  }
}

void Scheduler::freeSpaceTick(FreeSpaceTickReason reason) {
  freeSpaceWatch_.tick(reason, [this](const std::string& uuid) { queueLowSpacePass(uuid); });
}

void Scheduler::queueLowSpacePass(const std::string& uuid) {
  onVolume(uuid, Job::lowSpacePass, [this, uuid] {
    lowSpacePass_.run(uuid, [weak = weak_from_this(), uuid] {
      const auto self = weak.lock();
      if (self && self->isRunning()) self->queueLowSpacePass(uuid);
    });
  });
}

bool Scheduler::isRunning() {
  return timers_.with([](const Timers& timers) { return timers.freeSpace != nullptr; });
}

void Scheduler::diskEvent(const DiskEvent& event) {
  if (diskEvents_.handle(event)) queue_->async(weakly(&Scheduler::eventFreeSpaceTick));
}

void Scheduler::onVolume(const std::string& volumeUUID, Job job, Work work) {
  const JobKey key{VolumeUuid(volumeUUID), job};
  const bool waits =
      waitingJobs_.with([&](auto& waiting) { return !waiting.insert_or_assign(key, std::move(work)).second; });
  if (waits) return;
  services_.volumeQueues.queue(volumeUUID)->async([weak = weak_from_this(), key] {
    if (const auto self = weak.lock()) self->runJob(key);
  });
}

void Scheduler::runJob(const JobKey& key) {
  Work work = waitingJobs_.with([&](auto& waiting) { return std::move(waiting.extract(key).mapped()); });
  work();
}

}  // namespace quillmark
