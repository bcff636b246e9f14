// SqliteFiles: SQLite's files on a SimPosix's tree. Each of its calls counts under the disk's plan of faults; a killed
// disk answers nothing any more; a power cut keeps of each file what was synced and, by the seed, any of the blocks that
// were written since.
// Ownership: knows the disks that live; a database is closed before its disk goes, unless its life was frozen.
// Threads:   disks come and go on any thread; the files of one disk are used by one thread at a time.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "platform/sim/FaultPlan.h"

struct sqlite3_file;
struct sqlite3_vfs;

namespace quillmark::sim {

class SimPosix;

class SqliteFiles final {
 public:
  static void add(SimPosix& disk);
  static void remove(SimPosix& disk);
  // Null for a path on no disk.
  [[nodiscard]] static SimPosix* holding(std::string_view path);

  // For the simulator's file system: its calls, over those of the host's own.
  [[nodiscard]] static int fileBytes(const sqlite3_vfs& host);
  [[nodiscard]] static int open(sqlite3_vfs& host, const char* path, sqlite3_file* file, int flags, int* outFlags);
  [[nodiscard]] static int unlink(sqlite3_vfs& host, const char* path, bool syncNames);
  [[nodiscard]] static int askAbout(sqlite3_vfs& host, const char* path, int flags, int* result);

 private:
  friend struct SqliteFileCalls;
  // Of SQLite's codes: the fault's one for a call that must not happen.
  [[nodiscard]] static int enter(SimPosix& disk, PosixCall call, int failure);
  // Cuts the count to what gets written: half of a short write, for whose rest there was no room.
  [[nodiscard]] static int enterWrite(SimPosix& disk, int& count);
  static void opened(SimPosix& disk, const std::string& path);
  static void wrote(SimPosix& disk, const std::string& path, std::size_t at, std::string_view bytes);
  static void truncated(SimPosix& disk, const std::string& path, std::size_t size);
  static void synced(SimPosix& disk, const std::string& path, bool names);
};

}  // namespace quillmark::sim
