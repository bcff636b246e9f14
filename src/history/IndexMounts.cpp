#include "history/IndexMounts.h"

#include <fmt/format.h>

#include "base/Error.h"
#include "base/HelperLog.h"
#include "history/SnapshotHistoryStore.h"
#include "platform/SnapshotCalls.h"
#include "platform/dispatch.h"
#include "snapshots/APFSManager.h"
#include "snapshots/MountNames.h"
#include "snapshots/MountPinRegistry.h"

namespace quillmark {
namespace {

constexpr std::string_view pinReason = "a restore or comparison scan is reading from it";

Error occupied(const std::string& path) {
  return historyError(fmt::format("Snapshot mount path {} is occupied by another volume or snapshot", path));
}

}  // namespace

IndexMounts::IndexMounts(const HistoryServices& services)
    : services_(services), mounting_(services.dispatch), active_(services.dispatch) {}

IndexMounts::Mounted::~Mounted() { owner_.release(*this); }

bool IndexMounts::holds(const std::string& path, const std::string& source) const {
  const auto status = services_.calls.statfs(path);
  return status && status->mntonname == path && status->mntfromname == source;
}

std::unique_ptr<IndexMounts::Mounted> IndexMounts::useOthers(const std::string& path, const std::string& source) {
  std::unique_ptr<Mounted> mounted(new Mounted(*this, path, source));
  try {
    mounted->pin_ =
        services_.mountPins.pin({path}, std::string(pinReason), std::nullopt, MountPinRegistry::longestLifetime);
  } catch (const Error& failure) {
    // Clients fill the registry. Without a pin the mount may go, and then the scan fails.
    services_.log.warn("history: " + path + " is read without a pin: " + failure.description());
  }
  return mounted;
}

std::unique_ptr<IndexMounts::Mounted> IndexMounts::useOwn(const std::string& path, const std::string& source) {
  std::unique_ptr<Mounted> mounted(new Mounted(*this, path, source));
  mounted->isOurs_ = true;
  return mounted;
}

std::unique_ptr<IndexMounts::Mounted> IndexMounts::mount(const VolumeInfo& volume, const std::string& name, Xid xid) {
  const std::string source = fmt::format("{}@/dev/{}", name, volume.bsdName);
  const std::string userPath = userMountPath(services_.paths, volume, xid);
  const std::string path = fmt::format("{}/.index-{}-{}", services_.paths.privateMountRoot,
                                       snapshotMountName(volume.name, volume.uuid), xid.value);
  MutexLock lock(mounting_);
  if (holds(userPath, source)) return useOthers(userPath, source);
  active_.with([&](auto& active) { active.insert(path); });
  try {
    if (!isMountPoint(services_.calls, path)) return atIndexPath(volume, name, xid, path, source);
    if (holds(path, source)) return useOwn(path, source);
    if (!holds(userPath, source)) throw occupied(path);
    active_.with([&](auto& active) { active.erase(path); });
    return useOthers(userPath, source);
  } catch (...) {
    active_.with([&](auto& active) { active.erase(path); });
    throw;
  }
}

std::unique_ptr<IndexMounts::Mounted> IndexMounts::atIndexPath(const VolumeInfo& volume, const std::string& name,
                                                               Xid xid, const std::string& path,
                                                               const std::string& source) {
  try {
    services_.apfs.mountSnapshot(volume, {name, xid}, path);
  } catch (const Error&) {
    auto mounted = mountedMeanwhile(path, userMountPath(services_.paths, volume, xid), source);
    if (!mounted) throw;
    return mounted;
  }
  if (holds(path, source)) return useOwn(path, source);
  unmount(path);
  throw occupied(path);
}

std::unique_ptr<IndexMounts::Mounted> IndexMounts::mountedMeanwhile(const std::string& path,
                                                                    const std::string& userPath,
                                                                    const std::string& source) {
  if (holds(path, source)) return useOwn(path, source);
  std::optional<std::string> elsewhere;
  if (holds(userPath, source)) elsewhere = userPath;
  if (!elsewhere) {
    const auto mounts = services_.calls.getmntinfo();
    if (!mounts) return nullptr;
    for (const FileSystemStatus& status : *mounts) {
      if (status.mntfromname == source) elsewhere = status.mntonname;
    }
  }
  if (!elsewhere) return nullptr;
  active_.with([&](auto& active) { active.erase(path); });
  return useOthers(*elsewhere, source);
}

void IndexMounts::release(const Mounted& mounted) {
  if (mounted.pin_) services_.mountPins.unpin(*mounted.pin_);
  if (!mounted.isOurs_) return;
  unmount(mounted.path_);
  active_.with([&](auto& active) { active.erase(mounted.path_); });
}

void IndexMounts::unmount(const std::string& path) {
  try {
    services_.apfs.unmountSnapshot(path, true);
  } catch (const Error& failure) {
    services_.log.warn(
        fmt::format("history: could not unmount {}: {}; it is tried again hourly", path, failure.description()));
  }
}

void IndexMounts::sweep() {
  MutexLock lock(mounting_);
  const auto keeping = active_.with([](const auto& active) { return active; });
  services_.apfs.cleanStaleIndexMounts(keeping);
}

}  // namespace quillmark
