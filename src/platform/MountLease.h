// MountLease: the right to keep a file system mounted for longer than one operation. It ends when its people have
// unmounted it: who holds one then gives the file system back at once, so that the device can be taken away.
#pragma once

namespace quillmark {

// Ownership: dropping it ends the lease; a handler that is running ends, none starts afterwards.
class MountLease {
 public:
  virtual ~MountLease() = default;
};

}  // namespace quillmark
