#include "platform/sim/SimVolumeAttributes.h"

#include <cerrno>

namespace quillmark::sim {

class SimVolumeAttributes::Open final : public OpenVolumeAttributes {
 public:
  Open(SimVolumeAttributes& owner, const SimVolume& volume)
      : owner_(owner), volume_(volume.uuid), readOnly_((volume.mountFlags & mntReadOnly) != 0) {}

  SysResult<std::size_t> size(const std::string& name) override {
    const auto value = read(name);
    if (!value) return Errno{value.error()};
    return value->size();
  }

  SysResult<std::string> read(const std::string& name) override {
    if (const SysStatus counted = owner_.files_.count(PosixCall::getxattr); !counted) return Errno{counted.error()};
    const auto value = disk().value(volume_, name);
    if (!value) return Errno{ENODATA};
    return *value;
  }

  SysStatus write(const std::string& name, std::string_view value) override {
    if (value.size() > maxVolumeAttributeBytes) return Errno{E2BIG};
    if (const SysStatus allowed = mayChange(PosixCall::setxattr); !allowed) return allowed;
    disk().change(volume_, name, std::string(value));
    return sync();
  }

  SysStatus remove(const std::string& name) override {
    if (const SysStatus allowed = mayChange(PosixCall::removexattr); !allowed) return allowed;
    if (!disk().value(volume_, name)) return Errno{ENODATA};
    disk().change(volume_, name, std::nullopt);
    return sync();
  }

 private:
  [[nodiscard]] SimAttributeDisk& disk() const { return owner_.files_.attributes(); }

  [[nodiscard]] SysStatus mayChange(PosixCall call) const {
    if (readOnly_) return Errno{EROFS};
    const auto refused = owner_.refused_.find(volume_);
    if (refused != owner_.refused_.end() && refused->second != 0) return Errno{refused->second};
    return owner_.files_.count(call);
  }

  [[nodiscard]] SysStatus sync() const {
    if (const SysStatus counted = owner_.files_.count(PosixCall::fsyncVolume); !counted) return counted;
    disk().synced(volume_);
    return {};
  }

  SimVolumeAttributes& owner_;
  const Uuid volume_;
  const bool readOnly_;
};

SysResult<std::unique_ptr<OpenVolumeAttributes>> SimVolumeAttributes::open(const std::string& mountPoint,
                                                                           const VolumeUuid& expected) {
  if (const SysStatus counted = files_.count(PosixCall::openVolume); !counted) return Errno{counted.error()};
  for (const SimVolume& volume : volumes_.volumes()) {
    if (volume.mountPoint != mountPoint) continue;
    if (VolumeUuid(volume.uuid.lower()) != expected) return Errno{ESTALE};
    return std::unique_ptr<OpenVolumeAttributes>(std::make_unique<Open>(*this, volume));
  }
  return Errno{ENOENT};
}

}  // namespace quillmark::sim
