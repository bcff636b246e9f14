#include "platform/SnapshotCalls.h"

#include <cerrno>
#include <cstring>

namespace quillmark {
namespace {

struct RecordHead {
  std::uint32_t length;
  std::uint32_t returned[5];
  std::int32_t nameOffset;
  std::uint32_t nameLength;
  std::int64_t seconds;
  std::int64_t nanoseconds;
  std::uint64_t fileId;
};
static_assert(sizeof(RecordHead) == 56);

constexpr std::size_t nameReferenceAt = 24;
constexpr std::uint32_t allAttributes = attrCmnReturnedAttrs | attrCmnFileId | attrCmnCreationTime | attrCmnName;
constexpr std::uint16_t bitmapCount = 5;

std::size_t recordLength(const SnapshotListEntry& entry) {
  return (sizeof(RecordHead) + entry.name.size() + 1 + 7) / 8 * 8;
}

void writeRecord(const SnapshotListEntry& entry, std::span<std::byte> into) {
  const RecordHead head{.length = static_cast<std::uint32_t>(into.size()),
                        .returned = {allAttributes, 0, 0, 0, 0},
                        .nameOffset = sizeof(RecordHead) - nameReferenceAt,
                        .nameLength = static_cast<std::uint32_t>(entry.name.size() + 1),
                        .seconds = entry.createdSeconds,
                        .nanoseconds = entry.createdNanoseconds,
                        .fileId = entry.fileId};
  std::memset(into.data(), 0, into.size());
  std::memcpy(into.data(), &head, sizeof head);
  std::memcpy(into.data() + sizeof head, entry.name.data(), entry.name.size());
}

}  // namespace

bool SnapshotCalls::waitForSpace(const std::string&, std::chrono::nanoseconds) { return true; }

SysResult<std::map<Xid, std::uint64_t>> SnapshotCalls::changedSnapshots(OpenVolume&) {
  return std::map<Xid, std::uint64_t>();
}

SysResult<std::uint64_t> SnapshotCalls::lastChange(const std::string&) { return std::uint64_t{0}; }

SysResult<UnservedSubvolumes> SnapshotCalls::unservedSubvolumes(OpenVolume&) { return UnservedSubvolumes(); }

SysResult<int> writeSnapshotRecords(std::span<const SnapshotListEntry> entries, std::size_t& next,
                                    const AttributeList& attributes, std::span<std::byte> buffer) {
  if (attributes.bitmapCount != bitmapCount || attributes.common != allAttributes) return Errno{EINVAL};
  int written = 0;
  while (next < entries.size()) {
    const std::size_t length = recordLength(entries[next]);
    if (length > buffer.size()) break;
    writeRecord(entries[next], buffer.first(length));
    buffer = buffer.subspan(length);
    ++next;
    ++written;
  }
  if (written == 0 && next < entries.size()) return Errno{ERANGE};
  return written;
}

}  // namespace quillmark
