#include "snapshots/KernelSnapshotList.h"

#include <fmt/format.h>

#include <cstring>

#include "base/Text.h"
#include "platform/SnapshotCalls.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

constexpr std::size_t nameReferenceAt = 24;
constexpr std::size_t creationTimeAt = 32;
constexpr std::size_t fileIdAt = 48;
constexpr std::size_t fixedPart = 56;
constexpr std::uint32_t requiredAttributes = attrCmnFileId | attrCmnCreationTime | attrCmnName;

template <class Value>
Value load(std::span<const std::byte> bytes, std::size_t at) {
  Value value;
  std::memcpy(&value, bytes.data() + at, sizeof value);
  return value;
}

std::string nameOf(std::span<const std::byte> entry) {
  const std::int64_t offset = load<std::int32_t>(entry, nameReferenceAt);
  const std::int64_t length = load<std::uint32_t>(entry, nameReferenceAt + 4);
  const std::int64_t begin = static_cast<std::int64_t>(nameReferenceAt) + offset;
  if (length == 0 || begin < 0 || begin + length > static_cast<std::int64_t>(entry.size())) {
    throw std::string("invalid name range");
  }
  std::string_view bytes(reinterpret_cast<const char*>(entry.data()) + begin, static_cast<std::size_t>(length));
  while (bytes.ends_with('\0')) bytes.remove_suffix(1);
  std::string name = repairUtf8(bytes);
  if (name.empty()) throw std::string("empty snapshot name");
  return name;
}

// Throws the detail text of the first check that fails.
RawSnapshotEntry parseEntry(std::span<const std::byte> rest, std::size_t& length) {
  if (rest.size() < 4) throw std::string("missing length field");
  length = load<std::uint32_t>(rest, 0);
  if (length < 4 || length > rest.size()) throw fmt::format("invalid length {}", length);
  const std::span<const std::byte> entry = rest.first(length);
  if (length < nameReferenceAt) throw std::string("missing returned-attributes set");
  if ((load<std::uint32_t>(entry, 4) & requiredAttributes) != requiredAttributes) {
    throw std::string("kernel omitted required attributes");
  }
  if (length < creationTimeAt) throw std::string("missing name reference");
  if (length < fileIdAt) throw std::string("missing creation time");
  const auto nanoseconds = load<std::uint64_t>(entry, creationTimeAt + 8);
  if (nanoseconds > 999'999'999) throw std::string("invalid creation-time nanoseconds");
  if (length < fixedPart) throw std::string("missing 64-bit file ID");
  RawSnapshotEntry parsed;
  parsed.fileID = load<std::uint64_t>(entry, fileIdAt);
  if (parsed.fileID == 0) throw std::string("zero file ID");
  parsed.name = nameOf(entry);
  parsed.created = Date::from1970(static_cast<double>(load<std::int64_t>(entry, creationTimeAt)) +
                                  static_cast<double>(nanoseconds) / 1e9);
  return parsed;
}

}  // namespace

void parseSnapshotList(std::span<const std::byte> buffer, int count, std::vector<RawSnapshotEntry>& into) {
  std::size_t cursor = 0;
  for (int index = 0; index < count; ++index) {
    try {
      std::size_t length = 0;
      into.push_back(parseEntry(buffer.subspan(cursor), length));
      cursor += length;
    } catch (const std::string& detail) {
      throw QuillmarkError::make(QuillmarkErrorCode::snapshotListFailed,
                                 fmt::format("Malformed snapshot-list entry {}: {}", index, detail));
    }
  }
}

}  // namespace quillmark
