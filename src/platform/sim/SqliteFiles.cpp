#include "platform/sim/SqliteFiles.h"

#include <sqlite3.h>

#include <cerrno>
#include <new>
#include <vector>

#include "platform/linux/Threads.h"
#include "platform/sim/SimPosix.h"

namespace quillmark::sim {
namespace {

struct Disks {
  os::NativeMutex mutex;
  std::vector<SimPosix*> all GUARDED_BY(mutex);
};

Disks& disks() {
  static Disks known;
  return known;
}

std::string parentOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// SQLite gives the memory; the host's own file lies behind it.
struct DiskFile {
  sqlite3_file base;
  SimPosix* disk;
  std::string path;
  bool syncsNames;  // with its first sync, as the host's own does for a new journal
};

constexpr std::size_t hostOffset =
    (sizeof(DiskFile) + alignof(std::max_align_t) - 1) / alignof(std::max_align_t) * alignof(std::max_align_t);

DiskFile& ours(sqlite3_file* file) { return *reinterpret_cast<DiskFile*>(file); }
sqlite3_file* host(sqlite3_file* file) {
  return reinterpret_cast<sqlite3_file*>(reinterpret_cast<std::byte*>(file) + hostOffset);
}

}  // namespace

struct SqliteFileCalls {
  static int close(sqlite3_file* file) {
    const int status = host(file)->pMethods->xClose(host(file));
    ours(file).~DiskFile();
    return status;
  }
  static int read(sqlite3_file* file, void* into, int count, sqlite3_int64 at) {
    if (const int failed = enter(file, PosixCall::read, SQLITE_IOERR_READ)) return failed;
    return host(file)->pMethods->xRead(host(file), into, count, at);
  }
  static int write(sqlite3_file* file, const void* bytes, int count, sqlite3_int64 at) {
    const int status = SqliteFiles::enterWrite(*ours(file).disk, count);
    if (status != SQLITE_OK && count == 0) return status;
    if (const int failed = host(file)->pMethods->xWrite(host(file), bytes, count, at)) return failed;
    SqliteFiles::wrote(*ours(file).disk, ours(file).path, static_cast<std::size_t>(at),
                       {static_cast<const char*>(bytes), static_cast<std::size_t>(count)});
    return status;
  }
  static int truncate(sqlite3_file* file, sqlite3_int64 size) {
    if (const int failed = enter(file, PosixCall::ftruncate, SQLITE_IOERR_TRUNCATE)) return failed;
    const int status = host(file)->pMethods->xTruncate(host(file), size);
    if (status == SQLITE_OK) SqliteFiles::truncated(*ours(file).disk, ours(file).path, static_cast<std::size_t>(size));
    return status;
  }
  // The tree lies in memory: there is nothing to sync but the model.
  static int sync(sqlite3_file* file, int) {
    if (const int failed = enter(file, PosixCall::fsync, SQLITE_IOERR_FSYNC)) return failed;
    SqliteFiles::synced(*ours(file).disk, ours(file).path, ours(file).syncsNames);
    ours(file).syncsNames = false;
    return SQLITE_OK;
  }
  static int fileSize(sqlite3_file* file, sqlite3_int64* size) {
    if (const int failed = enter(file, PosixCall::fstat, SQLITE_IOERR_FSTAT)) return failed;
    return host(file)->pMethods->xFileSize(host(file), size);
  }
  static int lock(sqlite3_file* file, int level) {
    if (const int failed = enter(file, PosixCall::lockFile, SQLITE_IOERR_LOCK)) return failed;
    return host(file)->pMethods->xLock(host(file), level);
  }
  static int unlock(sqlite3_file* file, int level) { return host(file)->pMethods->xUnlock(host(file), level); }
  static int checkReservedLock(sqlite3_file* file, int* result) {
    return host(file)->pMethods->xCheckReservedLock(host(file), result);
  }
  // What the host would grow or map by itself would be past the model.
  static int fileControl(sqlite3_file* file, int operation, void* argument) {
    if (operation == SQLITE_FCNTL_MMAP_SIZE) return SQLITE_NOTFOUND;
    if (operation == SQLITE_FCNTL_SIZE_HINT || operation == SQLITE_FCNTL_CHUNK_SIZE) return SQLITE_OK;
    return host(file)->pMethods->xFileControl(host(file), operation, argument);
  }
  static int sectorSize(sqlite3_file* file) { return host(file)->pMethods->xSectorSize(host(file)); }
  static int characteristics(sqlite3_file* file) {
    return host(file)->pMethods->xDeviceCharacteristics(host(file)) & SQLITE_IOCAP_POWERSAFE_OVERWRITE;
  }
  static int shmMap(sqlite3_file* file, int page, int size, int extend, void volatile** memory) {
    if (const int failed = enter(file, PosixCall::open, SQLITE_IOERR_SHMMAP)) return failed;
    return host(file)->pMethods->xShmMap(host(file), page, size, extend, memory);
  }
  static int shmLock(sqlite3_file* file, int offset, int count, int flags) {
    return host(file)->pMethods->xShmLock(host(file), offset, count, flags);
  }
  static void shmBarrier(sqlite3_file* file) { host(file)->pMethods->xShmBarrier(host(file)); }
  static int shmUnmap(sqlite3_file* file, int remove) { return host(file)->pMethods->xShmUnmap(host(file), remove); }

 private:
  static int enter(sqlite3_file* file, PosixCall call, int failure) {
    return SqliteFiles::enter(*ours(file).disk, call, failure);
  }
};

namespace {

// Version 2: without mapped files, whose reads and writes nobody could count.
constexpr sqlite3_io_methods methods = {.iVersion = 2,
                                        .xClose = SqliteFileCalls::close,
                                        .xRead = SqliteFileCalls::read,
                                        .xWrite = SqliteFileCalls::write,
                                        .xTruncate = SqliteFileCalls::truncate,
                                        .xSync = SqliteFileCalls::sync,
                                        .xFileSize = SqliteFileCalls::fileSize,
                                        .xLock = SqliteFileCalls::lock,
                                        .xUnlock = SqliteFileCalls::unlock,
                                        .xCheckReservedLock = SqliteFileCalls::checkReservedLock,
                                        .xFileControl = SqliteFileCalls::fileControl,
                                        .xSectorSize = SqliteFileCalls::sectorSize,
                                        .xDeviceCharacteristics = SqliteFileCalls::characteristics,
                                        .xShmMap = SqliteFileCalls::shmMap,
                                        .xShmLock = SqliteFileCalls::shmLock,
                                        .xShmBarrier = SqliteFileCalls::shmBarrier,
                                        .xShmUnmap = SqliteFileCalls::shmUnmap,
                                        .xFetch = nullptr,
                                        .xUnfetch = nullptr};

}  // namespace

void SqliteFiles::add(SimPosix& disk) {
  os::NativeLock lock(disks().mutex);
  disks().all.push_back(&disk);
}

void SqliteFiles::remove(SimPosix& disk) {
  os::NativeLock lock(disks().mutex);
  std::erase(disks().all, &disk);
}

SimPosix* SqliteFiles::holding(std::string_view path) {
  os::NativeLock lock(disks().mutex);
  for (SimPosix* const disk : disks().all) {
    const std::string& root = disk->root();
    if (path.size() > root.size() && path.starts_with(root) && path[root.size()] == '/') return disk;
  }
  return nullptr;
}

int SqliteFiles::fileBytes(const sqlite3_vfs& host) { return static_cast<int>(hostOffset) + host.szOsFile; }

int SqliteFiles::enter(SimPosix& disk, PosixCall call, int failure) { return disk.enter(call) ? SQLITE_OK : failure; }

int SqliteFiles::enterWrite(SimPosix& disk, int& count) {
  const auto verdict = disk.enter(PosixCall::write);
  if (verdict && *verdict == SimPosix::Verdict::goOn) return SQLITE_OK;
  count = verdict ? count / 2 : 0;
  return verdict || verdict.error() == ENOSPC ? SQLITE_FULL : SQLITE_IOERR_WRITE;
}

int SqliteFiles::open(sqlite3_vfs& host, const char* path, sqlite3_file* file, int flags, int* outFlags) {
  SimPosix* const disk = path ? holding(path) : nullptr;
  if (!disk) return host.xOpen(&host, path, file, flags, outFlags);
  file->pMethods = nullptr;
  if (const int failed = enter(*disk, PosixCall::open, SQLITE_CANTOPEN)) return failed;
  sqlite3_file* const below = sim::host(file);
  const int status = host.xOpen(&host, path, below, flags, outFlags);
  if (status != SQLITE_OK) {
    if (below->pMethods) below->pMethods->xClose(below);
    return status;
  }
  const bool isJournal = (flags & (SQLITE_OPEN_WAL | SQLITE_OPEN_MAIN_JOURNAL)) != 0;
  new (file) DiskFile{{&methods}, disk, path, isJournal && (flags & SQLITE_OPEN_CREATE) != 0};
  opened(*disk, path);
  return SQLITE_OK;
}

int SqliteFiles::unlink(sqlite3_vfs& host, const char* path, bool syncNames) {
  SimPosix* const disk = holding(path);
  if (!disk) return host.xDelete(&host, path, syncNames ? 1 : 0);
  if (const int failed = enter(*disk, PosixCall::unlink, SQLITE_IOERR_DELETE)) return failed;
  const int status = host.xDelete(&host, path, 0);
  if (status != SQLITE_OK) return status;
  if (const SimNode::Ref node = disk->durability_.find(*disk->inside(path))) {
    disk->durability_.removed(*disk->inside(path), {});
  }
  if (!syncNames) return SQLITE_OK;
  if (const int failed = enter(*disk, PosixCall::fsync, SQLITE_IOERR_DIR_FSYNC)) return failed;
  disk->durability_.namesSynced(disk->nodeAt(parentOf(path)));
  return SQLITE_OK;
}

int SqliteFiles::askAbout(sqlite3_vfs& host, const char* path, int flags, int* result) {
  if (SimPosix* const disk = holding(path)) {
    if (const int failed = enter(*disk, PosixCall::lstat, SQLITE_IOERR_ACCESS)) return failed;
  }
  return host.xAccess(&host, path, flags, result);
}

void SqliteFiles::opened(SimPosix& disk, const std::string& path) {
  if (const SimNode::Ref node = disk.nodeAt(path)) node->byWrites = true;
}

void SqliteFiles::wrote(SimPosix& disk, const std::string& path, std::size_t at, std::string_view bytes) {
  const SimNode::Ref node = disk.nodeAt(path);
  if (!node) return;
  node->unsynced.push_back({at, std::string(bytes), false});
  disk.touch(node, true);
}

void SqliteFiles::truncated(SimPosix& disk, const std::string& path, std::size_t size) {
  const SimNode::Ref node = disk.nodeAt(path);
  if (!node) return;
  node->unsynced.push_back({size, {}, true});
  disk.touch(node, true);
}

void SqliteFiles::synced(SimPosix& disk, const std::string& path, bool names) {
  if (const SimNode::Ref node = disk.nodeAt(path)) {
    node->changedFrom = 0;
    SimDurability::synced(*node, disk.stateAt(*disk.inside(path)));
  }
  if (names) disk.durability_.namesSynced(disk.nodeAt(parentOf(path)));
}

}  // namespace quillmark::sim
