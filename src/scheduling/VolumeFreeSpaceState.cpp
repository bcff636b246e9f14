#include "scheduling/VolumeFreeSpaceState.h"

#include "wire/RecordCoding.h"

namespace quillmark {

template <>
struct Description<VolumeFreeSpaceState> {
  static void fields(auto& field, auto& state) {
    field("volumeUUID", state.volumeUUID);
    field("totalBytes", state.totalBytes);
    field("freeBytes", state.freeBytes);
    field("lowSpaceBytesThreshold", state.lowSpaceBytesThreshold);
    field("nextPruneCheckAt", state.nextPruneCheckAt);
    field("firstSeenAt", state.firstSeenAt);
  }
};

}  // namespace quillmark

QUILLMARK_RECORD(quillmark::VolumeFreeSpaceState)
