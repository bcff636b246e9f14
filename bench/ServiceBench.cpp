// A no-op command through the whole service, from the socket to the reply, against a bare unix-socket echo.
//
// Goal: one round trip within 3 times the bare echo's; pipelined at no less than half of its rate.
#include <benchmark/benchmark.h>
#include <fcntl.h>

#include <cstdlib>
#include <filesystem>

#include "bench/Echo.h"
#include "platform/linux/Clock.h"
#include "platform/linux/DeviceNames.h"
#include "platform/linux/DirectoryReader.h"
#include "platform/linux/Disks.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/FileWork.h"
#include "platform/linux/Posix.h"
#include "platform/linux/PowerSources.h"
#include "platform/linux/Processes.h"
#include "platform/linux/PropertyList.h"
#include "platform/linux/Random.h"
#include "platform/linux/SnapshotCalls.h"
#include "platform/linux/ThisProcess.h"
#include "platform/linux/ThreadIdentity.h"
#include "platform/linux/Transport.h"
#include "platform/linux/TransportSocket.h"
#include "platform/linux/Users.h"
#include "platform/linux/VolumeAttributes.h"
#include "platform/linux/identity/LinuxPeerIdentities.h"
#include "platform/sim/SimPlatform.h"
#include "service/HelperProcess.h"
#include "wire/Commands.h"
#include "wire/Rpc.h"

namespace quillmark {
namespace {

std::string freshDirectory() {
  std::string directory = "/tmp/quillmark-bench-XXXXXX";
  if (!::mkdtemp(directory.data())) std::abort();
  std::filesystem::create_directories(directory + "/run");
  return directory;
}

// Takes this program for a genuine client; all else, the look at each message's sender too, is as it is.
class TrustingPeers final : public os::LinuxPeerIdentities {
 public:
  using LinuxPeerIdentities::LinuxPeerIdentities;
  PeerIdentity identityByToken(const PeerCredentials& /*peer*/, std::string_view /*requirement*/) override {
    return {.bundleID = "com.harrowfern.quillmark.cli", .satisfiesRequirement = true};
  }
};

// The real service over the real platform, its paths under a directory of its own. Only root may talk to it.
class ServedHelper final {
 public:
  ServedHelper() {
    helper_.start();
    client_ = std::move(*os::connectTo(paths_.socket));
    ::fcntl(client_.get(), F_SETFL, 0);
  }
  ~ServedHelper() {
    client_.reset();
    std::filesystem::remove_all(directory_);
  }
  [[nodiscard]] int client() const { return client_.get(); }

 private:
  const std::string directory_ = freshDirectory();
  const HostPaths paths_ = sim::hostPathsUnder(directory_);
  os::LinuxClock clock_;
  os::LinuxDispatch dispatch_{clock_};
  os::LinuxRandom random_;
  os::LinuxPosix posix_;
  os::LinuxFileWork fileWork_;
  os::DeviceNames names_{posix_, paths_.deviceNames, os::DeviceNames::Mode::reader};
  os::LinuxSnapshotCalls snapshots_{dispatch_, names_};
  os::LinuxVolumeAttributes attributes_;
  os::LinuxDisks disks_{names_};
  os::LinuxProcesses processes_{dispatch_};
  os::LinuxPropertyLists propertyLists_;
  os::LinuxTransport listener_{dispatch_, {.path = paths_.socket}};
  TrustingPeers peers_{dispatch_, {}};
  sim::SimPlatformLog log_;
  sim::SimThisProcess process_{1};
  os::LinuxUsers users_;
  os::LinuxPowerSources power_;
  os::LinuxDirectoryReader directories_;
  os::LinuxThreadIdentity threadIdentities_;
  HelperProcess helper_{
      {dispatch_,      clock_,    random_, posix_, fileWork_, snapshots_, attributes_, disks_,       processes_,
       propertyLists_, listener_, peers_,  log_,   process_,  users_,     power_,      directories_, threadIdentities_,
       paths_,         {}},
      {.exitProcess = [] {}}};
  UniqueFd client_;
};

void BM_NoOpCommandAgainstBareEcho(benchmark::State& state) {
  const std::string line = encodeRequest(1, ProtocolVersion::traits.selector, {}) + "\n";
  const BareEcho bare;
  const ServedHelper helper;
  compareWithBare(state, bare.client(), helper.client(), line);
}
BENCHMARK(BM_NoOpCommandAgainstBareEcho)->Iterations(15)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillmark
