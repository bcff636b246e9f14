#include "snapshots/APFSManager.h"

#include <fmt/format.h>

#include <cerrno>

#include "platform/Files.h"
#include "platform/PlatformLog.h"
#include "platform/SnapshotCalls.h"
#include "platform/posix.h"
#include "snapshots/LogNames.h"
#include "snapshots/MountNames.h"
#include "snapshots/VolumeResolver.h"

namespace quillmark {
namespace {

using enum QuillmarkErrorCode;

constexpr int mostCreateAttempts = 8;
constexpr std::size_t firstListBuffer = 65'536;
constexpr std::size_t largestListBuffer = 16'777'216;
constexpr AttributeList listedAttributes{
    .bitmapCount = 5,
    .common = attrCmnReturnedAttrs | attrCmnFileId | attrCmnCreationTime | attrCmnName,
};
static_assert(listedAttributes.common == 0x82000201);

std::string openFailure(const std::string& path, int error) {
  std::string message = fmt::format("open({}) failed: {}", path, errnoText(error));
  if (error == EACCES || error == EPERM) {
    message +=
        ". Quillmark does not have permission to read this volume."
        " Grant it Full Disk Access in System Settings ▸ Privacy & Security,"
        " then re-index the volume.";
  }
  return message;
}

}  // namespace

VolumeInfo APFSManager::resolveVolume(const std::string& uuid) {
  return quillmark::resolveVolume(services_.disks, services_.calls, uuid);
}

std::unique_ptr<OpenVolume> APFSManager::open(const VolumeInfo& volume, QuillmarkErrorCode onFailure) {
  auto opened = services_.calls.open(volume.mountPoint, volume.key());
  if (!opened) throw QuillmarkError::make(onFailure, openFailure(volume.mountPoint, opened.error()));
  return std::move(*opened);
}

std::string APFSManager::createSnapshot(const VolumeInfo& volume, const std::string& label, SnapshotNameInfo::Kind kind,
                                        Date date) {
  const auto opened = open(volume, snapshotCreateFailed);
  for (int attempt = 1;; ++attempt) {
    const std::string suffix = attempt == 1 ? "" : fmt::format("-{}", attempt);
    const std::string name = SnapshotNameInfo::format(label + suffix, kind, date);
    const SysStatus created = services_.calls.fs_snapshot_create(*opened, name);
    if (created) {
      services_.log.log(PlatformLogType::info, LogNames::subsystem, category_,
                        fmt::format("Created snapshot {} on {}", name, volume.name));
      if (services_.callbacks.inventoryChanged) services_.callbacks.inventoryChanged(volume.uuid);
      return name;
    }
    if (created.error() != EEXIST || attempt == mostCreateAttempts) {
      throw QuillmarkError::make(snapshotCreateFailed, "fs_snapshot_create failed: " + errnoText(created.error()));
    }
  }
}

void APFSManager::deleteSnapshot(const VolumeInfo& volume, const SnapshotReference& snapshot) {
  const auto opened = open(volume, snapshotDeleteFailed);
  if (const SysStatus deleted = services_.calls.fs_snapshot_delete(*opened, snapshot.name, snapshot.xid); !deleted) {
    throw QuillmarkError::make(snapshotDeleteFailed, "fs_snapshot_delete failed: " + errnoText(deleted.error()));
  }
  if (services_.callbacks.inventoryChanged) services_.callbacks.inventoryChanged(volume.uuid);
}

std::vector<RawSnapshotEntry> APFSManager::listRawSnapshots(const VolumeInfo& volume) {
  const auto opened = open(volume, snapshotListFailed);
  std::vector<RawSnapshotEntry> entries;
  std::vector<std::byte> buffer(firstListBuffer);
  while (true) {
    const SysResult<int> count = services_.calls.fs_snapshot_list(*opened, listedAttributes, buffer);
    if (count) {
      if (*count == 0) return entries;
      parseSnapshotList(buffer, *count, entries);
      continue;
    }
    if (count.error() != ERANGE) {
      throw QuillmarkError::make(snapshotListFailed, "fs_snapshot_list failed: " + errnoText(count.error()));
    }
    if (buffer.size() * 2 > largestListBuffer) {
      throw QuillmarkError::make(snapshotListFailed, "fs_snapshot_list buffer grew past 16 MiB; aborting");
    }
    buffer.resize(buffer.size() * 2);
  }
}

std::vector<SnapshotRecord> APFSManager::listSnapshots(const VolumeInfo& volume) {
  return services_.identity.resolve(
      volume, [&] { return listRawSnapshots(volume); }, services_.callbacks.identityMigration);
}

std::map<Xid, std::uint64_t> APFSManager::changedSnapshots(const VolumeInfo& volume) {
  const auto opened = open(volume, snapshotListFailed);
  auto changed = services_.calls.changedSnapshots(*opened);
  if (!changed) {
    throw QuillmarkError::make(snapshotListFailed, "listing changed snapshots failed: " + errnoText(changed.error()));
  }
  return *std::move(changed);
}

std::vector<SnapshotRecord> APFSManager::verifySnapshots(const VolumeInfo& volume,
                                                         const std::vector<SnapshotReference>& references) {
  return matchReferences(volume, listSnapshots(volume), references);
}

void APFSManager::ensureMountRoot(const std::string& path) {
  const HostPaths& paths = services_.paths;
  const bool isPrivate = path.starts_with(paths.privateMountRoot + "/");
  const std::string& root = isPrivate ? paths.privateMountRoot : paths.userMountRoot;
  const auto status = services_.posix.lstat(root);
  if (status && status->type != FileType::directory) {
    throw QuillmarkError::make(snapshotMountFailed, "Mount root exists but is not a directory: " + root);
  }
  // What indexing has mounted is nobody else's to look at, or to keep busy.
  if (!status) createDirectories(services_.posix, root, isPrivate ? 0700 : 0755);
}

void APFSManager::mountSnapshot(const VolumeInfo& volume, const SnapshotReference& snapshot, const std::string& path) {
  const auto opened = open(volume, snapshotMountFailed);
  ensureMountRoot(path);
  createDirectories(services_.posix, path, 0700);
  const std::uint32_t flags =
      mntReadOnly | mntNoSuid | mntNoDev | (volume.isProtected ? std::uint32_t{mntIgnoreOwnership} : 0U);
  const SysStatus mounted = services_.calls.fs_snapshot_mount(*opened, path, snapshot.name, snapshot.xid, flags);
  if (mounted) return;
  if (!isMountPoint(services_.calls, path)) (void)services_.posix.rmdir(path);
  if (mounted.error() == EBUSY) {
    throw QuillmarkError::make(
        snapshotInUse,
        fmt::format("Snapshot \"{}\" is already mounted, so it cannot be mounted again right now.", snapshot.name));
  }
  throw QuillmarkError::make(snapshotMountFailed, "fs_snapshot_mount failed: " + errnoText(mounted.error()));
}

void APFSManager::unmountSnapshot(const std::string& path, bool force) {
  SysStatus unmounted = services_.calls.unmount(path, force);
  if (!unmounted && !force && unmounted.error() == EBUSY) unmounted = services_.calls.unmount(path, true);
  if (!unmounted && unmounted.error() != EINVAL) {
    throw QuillmarkError::make(snapshotUnmountFailed,
                               fmt::format("unmount({}) failed: {}", path, errnoText(unmounted.error())));
  }
  const SysStatus removed = services_.posix.rmdir(path);
  if (removed || removed.error() == ENOENT) return;
  services_.log.log(PlatformLogType::error, LogNames::subsystem, category_,
                    fmt::format("rmdir({}) failed after unmount: {}", path, errnoText(removed.error())));
  throw QuillmarkError::make(snapshotUnmountFailed,
                             fmt::format("rmdir({}) failed: {}", path, errnoText(removed.error())));
}

void APFSManager::cleanStaleIndexMounts(const std::set<std::string>& keeping) {
  const std::string& root = services_.paths.privateMountRoot;
  const auto names = services_.posix.list(root);
  if (!names) return;
  for (const std::string& name : *names) {
    const std::string path = root + "/" + name;
    if (name.starts_with(".index-") && !keeping.contains(path)) removeStaleMount(path);
  }
}

void APFSManager::removeStaleMount(const std::string& path) {
  const auto log = [&](PlatformLogType type, const std::string& message) {
    services_.log.log(type, LogNames::subsystem, category_, message);
  };
  if (isSnapshotMount(services_.calls, path)) {
    try {
      unmountSnapshot(path, true);
      log(PlatformLogType::info, "Removed stale indexing mount at " + path);
    } catch (const Error& error) {
      log(PlatformLogType::normal,
          fmt::format("Could not remove stale indexing mount at {}: {}", path, error.description()));
    }
    return;
  }
  const SysStatus removed = services_.posix.rmdir(path);
  if (removed || removed.error() == ENOENT || removed.error() == ENOTEMPTY) return;
  log(PlatformLogType::normal, "Could not remove stale indexing directory at " + path);
}

}  // namespace quillmark
