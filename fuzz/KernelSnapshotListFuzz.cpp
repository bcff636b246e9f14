// The kernel's snapshot records: any bytes give entries that hold what they promise, or a listing error.
#include <cstdlib>

#include "base/Text.h"
#include "snapshots/KernelSnapshotList.h"
#include "wire/QuillmarkError.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quillmark;
  if (size == 0) return 0;
  // A copy of exactly this size, so that reading past it is seen.
  const std::vector<std::uint8_t> exact(data + 1, data + size);
  std::vector<RawSnapshotEntry> entries;
  try {
    parseSnapshotList(std::as_bytes(std::span(exact)), data[0], entries);
    if (entries.size() != data[0]) std::abort();
  } catch (const Error& error) {
    if (QuillmarkError::codeOf(error) != QuillmarkErrorCode::snapshotListFailed) std::abort();
  }
  for (const RawSnapshotEntry& entry : entries) {
    if (entry.name.empty() || entry.fileID == 0 || !isValidUtf8(entry.name)) std::abort();
  }
  return 0;
}
