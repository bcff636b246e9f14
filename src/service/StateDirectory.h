// The state directory: who may read what in it.
#pragma once

#include "platform/HostPaths.h"

namespace quillmark {

class Posix;

// Makes the directory, gives it and every known entry its mode and owner again, and removes what killed processes left
// half-written. Failures are passed over. To be called while nobody writes there.
void secureStateDirectory(Posix& posix, const HostPaths& paths);

}  // namespace quillmark
