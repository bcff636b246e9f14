#include "service/DescriptorLimit.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/HelperLog.h"
#include "platform/ThisProcess.h"

namespace quillmark {

void raiseDescriptorLimit(ThisProcess& process, HelperLog& log) {
  constexpr std::uint64_t wanted = 10240;
  const auto limit = process.descriptorLimit();
  if (!limit) return;
  const std::uint64_t target = std::min(limit->hard, wanted);
  if (limit->soft >= target) return;
  if (process.setDescriptorLimit({target, limit->hard})) {
    log.info(fmt::format("descriptor limit raised {} -> {}", limit->soft, target));
  } else {
    log.warn(fmt::format("could not raise the descriptor limit from {}", limit->soft));
  }
}

}  // namespace quillmark
