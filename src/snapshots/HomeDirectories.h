// HomeDirectories: which people's homes this machine has, and on which volume each lies.
//
//   const std::vector<std::string> homes = homeDirectories.relativePaths(volume.mountPoint, clock.now());
//
// Ownership: borrows its facilities, which must outlive it.
// Threads:   thread-safe. The database and the disks are read outside the lock; of two who read at once the last counts.
// Errors:    none; a home that can't be looked at is left out.
// Units:     what was found stands for 60 seconds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Date.h"
#include "platform/sync.h"

namespace quillmark {

class SnapshotCalls;
class Users;

struct HomeDirectory {
  std::uint32_t uid = 0;
  std::string username;
  std::string path;          // absolute, with all symbolic links resolved
  std::string mountPoint;    // of the file system that holds it
  std::string relativePath;  // from there on, beginning with "/"
  bool operator==(const HomeDirectory&) const = default;
};

// Two mount points are the same place when these are equal.
[[nodiscard]] std::string normalizedMountPoint(const std::string& mountPoint);

class HomeDirectories final {
 public:
  HomeDirectories(Threads& threads, Users& users, SnapshotCalls& calls);

  // By path, then by user.
  [[nodiscard]] std::vector<HomeDirectory> all(Date now) EXCLUDES(lock_);
  // Of the homes on that mount, in the same order.
  [[nodiscard]] std::vector<std::string> relativePaths(const std::string& mountPoint, Date now);
  [[nodiscard]] std::vector<std::string> paths(const std::string& mountPoint, Date now);

 private:
  [[nodiscard]] std::vector<HomeDirectory> build();
  [[nodiscard]] std::vector<HomeDirectory> on(const std::string& mountPoint, Date now);

  struct Known {
    std::vector<HomeDirectory> homes;
    Date madeAt;
  };

  Users& users_;
  SnapshotCalls& calls_;

  Mutex lock_;
  std::optional<Known> known_ GUARDED_BY(lock_);
};

}  // namespace quillmark
