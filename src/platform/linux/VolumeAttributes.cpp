#include "platform/linux/VolumeAttributes.h"

#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>

#include "platform/linux/BtrfsMount.h"

namespace quillmark::os {
namespace {

// What the kernel gives at most (XATTR_SIZE_MAX).
constexpr std::size_t largestValue = 64 * 1024;

std::string attributeName(const std::string& name) { return "trusted." + name; }

class LinuxOpenVolumeAttributes final : public OpenVolumeAttributes {
 public:
  explicit LinuxOpenVolumeAttributes(UniqueFd root) : root_(std::move(root)) {}

  SysResult<std::size_t> size(const std::string& name) override {
    const ssize_t bytes = ::fgetxattr(root_.get(), attributeName(name).c_str(), nullptr, 0);
    if (bytes < 0) return Errno{errno};
    return static_cast<std::size_t>(bytes);
  }

  SysResult<std::string> read(const std::string& name) override {
    std::string value(largestValue, '\0');
    const ssize_t bytes = ::fgetxattr(root_.get(), attributeName(name).c_str(), value.data(), value.size());
    if (bytes < 0) return Errno{errno};
    value.resize(static_cast<std::size_t>(bytes));
    return value;
  }

  SysStatus write(const std::string& name, std::string_view value) override {
    if (value.size() > maxVolumeAttributeBytes) return Errno{E2BIG};
    if (::fsetxattr(root_.get(), attributeName(name).c_str(), value.data(), value.size(), 0) != 0) return Errno{errno};
    return sync();
  }

  SysStatus remove(const std::string& name) override {
    if (::fremovexattr(root_.get(), attributeName(name).c_str()) != 0) return Errno{errno};
    return sync();
  }

 private:
  [[nodiscard]] SysStatus sync() const {
    if (::fsync(root_.get()) != 0) return Errno{errno};
    return {};
  }

  UniqueFd root_;
};

}  // namespace

SysResult<std::unique_ptr<OpenVolumeAttributes>> LinuxVolumeAttributes::open(const std::string& mountPoint,
                                                                             const VolumeUuid& expected) {
  const auto table = MountTable::read();
  if (!table) return Errno{table.error()};
  const MountEntry* entry = table->at(mountPoint);
  if (!entry) return Errno{ENOENT};
  if (!entry->isWholeSubvolume()) return Errno{ESTALE};
  auto mounted = openSubvolume(*entry);
  if (!mounted) return Errno{mounted.error()};
  if (VolumeUuid(mounted->volumeUuid().lower()) != expected) return Errno{ESTALE};
  return std::unique_ptr<OpenVolumeAttributes>(std::make_unique<LinuxOpenVolumeAttributes>(std::move(mounted->fd)));
}

}  // namespace quillmark::os
