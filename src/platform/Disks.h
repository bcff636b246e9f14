// Disks: what is mounted, and what the platform knows of the devices below.
// Never touches a file system that isn't ours to serve, so that a dead network mount can't hang the caller.
// Threads: thread-safe. Errors: none; what isn't known is absent.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "base/UniqueFunction.h"
#include "base/Uuid.h"
#include "platform/MountLease.h"

namespace quillmark {

class Dispatch;
class Queue;

// A registry property: absent, a string, or an array of strings.
using RegistryProperty = std::variant<std::monostate, std::string, std::vector<std::string>>;

// DADiskCopyDescription and the media's registry entry; a key that isn't given is absent.
struct DiskDescription {
  std::optional<std::string> volumeKind;
  std::optional<std::string> volumeName;
  std::optional<std::string> volumePath;
  std::optional<Uuid> volumeUuid;
  std::optional<std::string> mediaBsdName;
  std::optional<bool> mediaWritable;
  std::optional<bool> deviceInternal;
  std::optional<std::string> deviceProtocol;
  std::optional<std::string> deviceModel;
  RegistryProperty role;   // property "Role" of the IOMedia entry
  RegistryProperty roles;  // property "Roles"
};

struct VolumeCapacities {
  std::optional<std::uint64_t> total;
  std::optional<std::uint64_t> available;
  std::optional<std::uint64_t> availableForImportantUsage;
};

// Something was mounted, is no longer mounted, or is mounted otherwise than before.
struct DiskEvent {
  enum class Kind {
    appeared,
    disappeared,
    descriptionChanged,
    servedElsewhere,  // no disk at all: a network's or FUSE's file system was mounted, and nothing more is known of it
  } kind = Kind::appeared;
  std::optional<std::string> volumePath;  // of what disappeared: where it was
  std::optional<std::string> volumeKind;
  std::optional<std::string> mediaBsdName;
  bool operator==(const DiskEvent&) const = default;
};

// Ownership: dropping it ends the watch; a handler that is running ends, none starts afterwards.
class DiskWatch {
 public:
  virtual ~DiskWatch() = default;
};

class Disks {
 public:
  using DiskEventHandler = UniqueFunction<void(const DiskEvent&)>;

  virtual ~Disks() = default;

  // False when the platform's disk service can't be asked at all.
  [[nodiscard]] virtual bool startSession() = 0;
  // Mount points of mounted volumes, in the order of mounting; absent when the platform gives no list.
  [[nodiscard]] virtual std::optional<std::vector<std::string>> mountedVolumePaths() = 0;
  [[nodiscard]] virtual std::optional<DiskDescription> describe(const std::string& volumePath) = 0;
  // Class names from the device's registry entry upwards; absent without an entry.
  [[nodiscard]] virtual std::optional<std::vector<std::string>> registryClasses(const std::string& bsdName) = 0;
  // The "BSD Name" of every media entry; absent when the registry can't be read.
  [[nodiscard]] virtual std::optional<std::vector<std::string>> mediaBsdNames() = 0;
  [[nodiscard]] virtual VolumeCapacities capacities(const std::string& volumePath) = 0;
  // What happens to mounts of disks' file systems from now on, one event for each mount; those of other kinds
  // (containers', the kernel's own) and of parts of a file system make none, those served elsewhere one when they come. The
  // handler runs on the queue, which has to be serial. Null when the platform can't watch.
  [[nodiscard]] virtual std::unique_ptr<DiskWatch> watch(Dispatch& dispatch, std::shared_ptr<Queue> queue,
                                                         DiskEventHandler handler) = 0;
  // A lease on the file system mounted at this mount point, for a mount of ours below the private root: the handler runs
  // on the queue, once, when the last mount of it that lies elsewhere is gone. Null when nothing is mounted there, or
  // when the platform can't watch.
  [[nodiscard]] virtual std::unique_ptr<MountLease> lease(Dispatch& dispatch, std::shared_ptr<Queue> queue,
                                                          const std::string& mountPoint, const std::string& privateRoot,
                                                          UniqueFunction<void()> onRevoked) = 0;
};

}  // namespace quillmark
