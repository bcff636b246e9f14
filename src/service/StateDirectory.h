// The state directory: who may read what in it.
#pragma once

#include "platform/HostPaths.h"

namespace quillmark {

class Posix;

// Makes the directory, and gives it and every known entry its mode and owner again. Failures are passed over.
void secureStateDirectory(Posix& posix, const HostPaths& paths);

}  // namespace quillmark
