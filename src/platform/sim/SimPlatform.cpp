#include "platform/sim/SimPlatform.h"

#include <cstdlib>

namespace quillmark::sim {
namespace {

// The directories that every machine has.
std::unique_ptr<SimPosix> installedMachine(Clock& clock) {
  auto files = std::make_unique<SimPosix>(&clock);
  for (const char* directory : {"/var", "/var/db", "/var/lib", "/var/log", "/run", "/usr", "/usr/local",
                                "/usr/local/bin", "/usr/sbin", "/Volumes"}) {
    if (!files->mkdir(files->root() + directory, 0755)) std::abort();
  }
  files->syncEverything();
  files->setPlan({});
  return files;
}

}  // namespace

HostPaths hostPathsUnder(const std::string& prefix) {
  HostPaths paths;
  for (std::string HostPaths::*path :
       {&HostPaths::stateDirectory, &HostPaths::sharedDirectory, &HostPaths::deviceNames, &HostPaths::helperLog,
        &HostPaths::runDirectory, &HostPaths::socket, &HostPaths::privateMountRoot, &HostPaths::userMountRoot}) {
    (paths.*path).insert(0, prefix);
  }
  paths.diskutil = prefix + "/usr/sbin/diskutil";
  return paths;
}

SimPlatform::SimPlatform(Life& life, SimVolumes& volumes, SimPlatformOptions options)
    : life_(life), files_(options.files ? std::move(options.files) : installedMachine(life.clock())),
      fileWork_(std::make_shared<SimFileWork>(files_->root())), paths_(hostPathsUnder(files_->root())),
      bundle_(std::move(options.bundle)), snapshots_(volumes, life.clock()), attributes_(volumes, *files_),
      directories_(volumes), disks_(volumes), processes_(life.dispatch()), transport_(life, options.transport),
      process_(life.pid()), threadIdentities_(life.dispatch()) {
  files_->onKill([this] { life_.kill(); });
  directories_.setPathOf([this](int fd) { return threadIdentities_.pathOf(fd); });
  life.atEnd([files = std::weak_ptr(files_), work = std::weak_ptr(fileWork_)] {
    if (const auto alive = files.lock()) alive->kill();
    if (const auto alive = work.lock()) alive->kill();
  });
}

Platform SimPlatform::platform() {
  return {.dispatch = life_.dispatch(),
          .clock = life_.clock(),
          .random = life_.random(),
          .posix = *files_,
          .fileWork = *fileWork_,
          .snapshots = snapshots_,
          .attributes = attributes_,
          .disks = disks_,
          .processes = processes_,
          .propertyLists = propertyLists_,
          .listener = transport_,
          .peers = peers_,
          .log = log_,
          .process = process_,
          .users = users_,
          .power = power_,
          .directories = directories_,
          .threadIdentities = threadIdentities_,
          .paths = paths_,
          .bundle = bundle_};
}

}  // namespace quillmark::sim
