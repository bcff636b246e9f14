// A library that leaves a trace where it is loaded, for LD_PRELOAD.
#include <fcntl.h>
#include <unistd.h>

namespace {

__attribute__((constructor)) void leaveATrace() {
  const int file = ::open("/tmp/preloaded", O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (file >= 0) ::close(file);
}

}  // namespace
