// quillmark-helper: the background service. Takes no options and no environment.
#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

#include "platform/linux/Clock.h"
#include "platform/linux/DeviceNames.h"
#include "platform/linux/DirectoryReader.h"
#include "platform/linux/Disks.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/FileWork.h"
#include "platform/linux/PlatformLog.h"
#include "platform/linux/Posix.h"
#include "platform/linux/PowerSources.h"
#include "platform/linux/Processes.h"
#include "platform/linux/PropertyList.h"
#include "platform/linux/Random.h"
#include "platform/linux/ServiceHost.h"
#include "platform/linux/SnapshotCalls.h"
#include "platform/linux/ThisProcess.h"
#include "platform/linux/ThreadIdentity.h"
#include "platform/linux/Transport.h"
#include "platform/linux/Users.h"
#include "platform/linux/VolumeAttributes.h"
#include "platform/linux/identity/LinuxPeerIdentities.h"
#include "service/BuildFacts.h"
#include "service/HelperProcess.h"

namespace quillmark {
namespace {

constexpr int anotherInstanceRuns = 75;  // EX_TEMPFAIL of sysexits.h(3)

int serve(const char* executable) {
  HostPaths paths;
  paths.diskutil = os::programDirectory() + "/diskutil";
  os::requireHost();
  const std::optional<UniqueFd> instance = os::lockInstance(paths.stateDirectory);
  if (!instance) {
    fmt::print(stderr, "quillmark-helper: another instance is running\n");
    return anotherInstanceRuns;
  }
  os::prepareSignals();
  const bool ownsLog = os::sendStandardErrorTo(paths.helperLog);

  os::LinuxClock clock;
  std::atomic<HelperLog*> log{nullptr};
  const auto onCapReached = [&log](const std::string& blockers) {
    if (HelperLog* ready = log.load()) ready->warn("all worker threads are blocked: " + blockers);
  };
  os::LinuxDispatch dispatch(clock, {.onCapReached = onCapReached});
  os::LinuxRandom random;
  os::LinuxPosix posix;
  os::LinuxFileWork fileWork;
  os::DeviceNames names(posix, paths.deviceNames, os::DeviceNames::Mode::writer);
  os::LinuxSnapshotCalls snapshots(dispatch, names);
  os::LinuxVolumeAttributes attributes;
  os::LinuxDisks disks(names);
  os::LinuxProcesses processes(dispatch);
  os::LinuxPropertyLists propertyLists;
  os::LinuxTransportOptions transport{.path = paths.socket};
  if (auto activated = os::activatedSocket()) transport.listening = std::move(*activated);
  os::LinuxTransport listener(dispatch, std::move(transport));
  os::LinuxPeerIdentities peers(dispatch, {.anchor = os::CodeAnchor::parse(codeAnchorDigits()).value()});
  os::LinuxPlatformLog platformLog;
  os::LinuxThisProcess process;
  os::LinuxUsers users;
  os::LinuxPowerSources power;
  os::LinuxDirectoryReader directories;
  os::LinuxThreadIdentity threadIdentities;

  const Platform platform{.dispatch = dispatch,
                          .clock = clock,
                          .random = random,
                          .posix = posix,
                          .fileWork = fileWork,
                          .snapshots = snapshots,
                          .attributes = attributes,
                          .disks = disks,
                          .processes = processes,
                          .propertyLists = propertyLists,
                          .listener = listener,
                          .peers = peers,
                          .log = platformLog,
                          .process = process,
                          .users = users,
                          .power = power,
                          .directories = directories,
                          .threadIdentities = threadIdentities,
                          .paths = paths,
                          .bundle = buildFacts()};
  const HealthNote deviceNamesNote = [&names]() -> std::optional<std::string> {
    const auto problem = names.problem();
    return problem ? std::optional("Devices can't be given names: " + *problem) : std::nullopt;
  };
  HelperProcess helper(
      platform, {.logRotation = ownsLog ? HelperLogWriter::Rotation::ofLogFile : HelperLogWriter::Rotation::never,
                 .executable = executable ? executable : "?",
                 .exitProcess = [] { ::_exit(0); },
                 .healthNotes = {deviceNamesNote}});
  log = &helper.log();
  try {
    helper.start();
  } catch (const Error& error) {
    helper.log().error("The helper could not start: " + error.description());
    ::_exit(1);
  }
  if (const auto note = deviceNamesNote()) helper.log().error(*note);
  // The process leaves from the drain that a signal, or a client, starts.
  while (true) {
    os::waitForQuitSignal();
    helper.requestQuit();
  }
}

}  // namespace
}  // namespace quillmark

int main(int count, char** arguments) {
  std::setvbuf(stderr, nullptr, _IOLBF, 0);
  try {
    return quillmark::serve(count > 0 ? arguments[0] : nullptr);
  } catch (const std::exception& exception) {
    fmt::print(stderr, "quillmark-helper: {}\n", exception.what());
    return 1;
  }
}
