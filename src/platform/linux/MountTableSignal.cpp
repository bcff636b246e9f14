#include "platform/linux/MountTableSignal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace quillmark::os {

MountTableSignal::MountTableSignal()
    : mountinfo_(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)), wake_(::eventfd(0, EFD_CLOEXEC)) {}

bool MountTableSignal::wait(std::optional<std::chrono::milliseconds> atMost) {
  pollfd descriptors[] = {{wake_.get(), POLLIN, 0}, {mountinfo_.get(), POLLPRI, 0}};
  ::poll(descriptors, 2, atMost ? static_cast<int>(atMost->count()) : -1);
  return descriptors[1].revents != 0;
}

void MountTableSignal::pause(std::chrono::milliseconds span) {
  pollfd descriptor{wake_.get(), POLLIN, 0};
  ::poll(&descriptor, 1, static_cast<int>(span.count()));
}

void MountTableSignal::wake() {
  const std::uint64_t one = 1;
  static_cast<void>(::write(wake_.get(), &one, sizeof one) == sizeof one);
}

}  // namespace quillmark::os
