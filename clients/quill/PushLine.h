// What the helper tells on its own, in a line for people and for programs.
// Threads: as the clock.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Xid.h"
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

// How far the indexing of a volume is. Of "done" it is the volume alone that counts.
struct IndexPush {
  std::string volumeUUID;
  Xid xid;
  std::string phase;
  std::int64_t files = 0;
};
// Absent for a push about something else, and for one that can't be understood.
[[nodiscard]] std::optional<IndexPush> indexPushIn(const RpcIncoming& push);

}  // namespace quillmark::cli
