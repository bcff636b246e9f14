// LinuxVolumeAttributes: extended attributes (xattr(7)) on the root directory of a mounted subvolume, in the "trusted."
// namespace: for root alone.
// Ownership: an open one holds a descriptor of the volume's root, which keeps it from being unmounted.
// Threads:   thread-safe.
// Errors:    errno; beside those of the interface: ENOENT when nothing is mounted at the path, EHOSTDOWN for a mount below
//            one that may never answer, ENOSPC when the root directory holds too much already.
#pragma once

#include "platform/VolumeAttributes.h"

namespace quillmark::os {

class LinuxVolumeAttributes final : public VolumeAttributes {
 public:
  SysResult<std::unique_ptr<OpenVolumeAttributes>> open(const std::string& mountPoint,
                                                        const VolumeUuid& expected) override;
};

}  // namespace quillmark::os
