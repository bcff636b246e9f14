// DeviceNames: the registry of the names "diskN" for file systems and "diskNsM" for volumes, and of the roles that an
// administrator gave to volumes. A file that everybody may read and the service alone writes:
//   {"version": 1, "nextDisk": 2, "fileSystems": {"<fsid>": {"disk": 1, "nextVolume": 3, "volumes": {
//     "<volume UUID>": {"volume": 1}, "<volume UUID>": {"volume": 2, "role": "Backup"}}}}}
// Keys that it doesn't know stay as they are.
// Ownership: borrows the file calls.
// Threads:   thread-safe; holds its lock while it reads or writes the file.
// Errors:    none thrown: no name is given while the file can't be read, understood or written; problem() says why.
// Invariant: a name is given out only once the file that tells it is on disk; a number is given once and never again; a
//            file that can't be understood is never written over.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/Uuid.h"
#include "platform/linux/Threads.h"
#include "platform/posix.h"

namespace quillmark::os {

class DeviceNames final {
 public:
  // A reader knows only names that were given before. Only one process may write: the service, behind its lock.
  enum class Mode { reader, writer };

  struct Volume {
    Uuid fileSystem;
    Uuid volume;
  };

  DeviceNames(Posix& posix, std::string path, Mode mode);
  ~DeviceNames();
  DeviceNames(const DeviceNames&) = delete;
  DeviceNames& operator=(const DeviceNames&) = delete;

  // "diskN"; a writer gives one where there is none yet.
  [[nodiscard]] std::optional<std::string> disk(const Uuid& fileSystem);
  // "diskNsM"; a writer gives one where there is none yet.
  [[nodiscard]] std::optional<std::string> volume(const Volume& volume);
  // Never gives one.
  [[nodiscard]] std::optional<std::string> givenVolume(const Volume& volume);
  [[nodiscard]] std::optional<std::string> role(const Volume& volume);
  // Which volume bears the name; absent for a name that was never given, and for a disk's.
  [[nodiscard]] std::optional<Volume> volumeNamed(std::string_view name);
  // Which file system bears the name, which may be a disk's or a volume's.
  [[nodiscard]] std::optional<Uuid> fileSystemNamed(std::string_view name);

  // Why names are missing; absent while the file is in order.
  [[nodiscard]] std::optional<std::string> problem();

 private:
  class File;

  const std::unique_ptr<File> file_ PT_GUARDED_BY(mutex_);
  NativeMutex mutex_;
};

}  // namespace quillmark::os
