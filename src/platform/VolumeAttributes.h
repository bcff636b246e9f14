// VolumeAttributes: small named values on the root directory of a volume, which go where the volume goes.
// Ownership: an open one belongs to its caller and must not outlive the operation it was opened for.
// Threads:   thread-safe; may wait for the disk.
// Errors:    errno. ENODATA for a value that isn't there, ESTALE when another volume than the expected one is mounted at the
//            path, E2BIG for a value past the limit, EROFS or EPERM where nothing can be written.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "base/SysResult.h"
#include "base/Uuid.h"

namespace quillmark {

inline constexpr std::size_t maxVolumeAttributeBytes = 8 * 1024;

class OpenVolumeAttributes {
 public:
  virtual ~OpenVolumeAttributes() = default;
  // In bytes.
  [[nodiscard]] virtual SysResult<std::size_t> size(const std::string& name) = 0;
  [[nodiscard]] virtual SysResult<std::string> read(const std::string& name) = 0;
  // Both: on disk when they return.
  [[nodiscard]] virtual SysStatus write(const std::string& name, std::string_view value) = 0;
  [[nodiscard]] virtual SysStatus remove(const std::string& name) = 0;
};

class VolumeAttributes {
 public:
  virtual ~VolumeAttributes() = default;
  [[nodiscard]] virtual SysResult<std::unique_ptr<OpenVolumeAttributes>> open(const std::string& mountPoint,
                                                                              const VolumeUuid& expected) = 0;
};

}  // namespace quillmark
