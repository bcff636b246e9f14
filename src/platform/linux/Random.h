// LinuxRandom: bits of getrandom(2).
#pragma once

#include "platform/random.h"

namespace quillmark::os {

class LinuxRandom final : public Random {
 public:
  std::uint64_t next() override;
};

}  // namespace quillmark::os
