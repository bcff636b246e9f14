#include "base/UniqueFd.h"

#include <unistd.h>

namespace quillmark {

void UniqueFd::reset(int fd) {
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

}  // namespace quillmark
