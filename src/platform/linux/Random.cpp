#include "platform/linux/Random.h"

#include <sys/random.h>

#include <cstdlib>

namespace quillmark::os {

std::uint64_t LinuxRandom::next() {
  std::uint64_t bits;
  if (::getrandom(&bits, sizeof bits, 0) != sizeof bits) std::abort();
  return bits;
}

}  // namespace quillmark::os
