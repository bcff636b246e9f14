#include "history/index/SnapshotIndex.h"

namespace quillmark::SnapshotIndex {

std::optional<EntryType> entryType(std::int64_t rawValue) {
  if (rawValue < 1 || rawValue > 4) return std::nullopt;
  return static_cast<EntryType>(rawValue);
}

std::int64_t metaBits(std::uint32_t mode, std::uint32_t uid, std::uint32_t gid, std::uint32_t flags) {
  std::uint64_t fold = 0xcbf29ce484222325;
  for (const std::uint32_t value : {mode & 0xfff, uid, gid, flags}) fold = (fold ^ value) * 0x100000001b3;
  return static_cast<std::int64_t>(fold);
}

}  // namespace quillmark::SnapshotIndex
