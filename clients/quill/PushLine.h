// What the helper tells on its own, in a line for people and for programs.
// Threads: as the clock.
#pragma once

#include <string>
#include <vector>

#include "quill/Table.h"
#include "wire/Rpc.h"

namespace quillmark::cli {

// What happened, the UUID of its volume where it has one, and more. Whatever can't be understood is told as it came.
struct PushLine {
  std::string event;
  std::string volumeUUID;
  std::string detail;
};
[[nodiscard]] PushLine lineOf(const RpcIncoming& push);

}  // namespace quillmark::cli
