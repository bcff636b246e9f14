#include "platform/linux/TreeFacts.h"

#include <endian.h>
#include <linux/stat.h>

#include <algorithm>
#include <cstring>

#include "platform/NameText.h"

namespace quillmark::os {
namespace {

// On disk; the header leaves them out.
constexpr std::uint64_t inodeImmutable = 1u << 6;
constexpr std::uint64_t inodeAppend = 1u << 7;
constexpr std::uint64_t inodeNoDump = 1u << 8;

static_assert(fileImmutable == STATX_ATTR_IMMUTABLE && fileAppendOnly == STATX_ATTR_APPEND &&
              fileNoDump == STATX_ATTR_NODUMP);

FileType typeOf(std::uint32_t mode) {
  if (S_ISREG(mode)) return FileType::regular;
  if (S_ISDIR(mode)) return FileType::directory;
  if (S_ISLNK(mode)) return FileType::symlink;
  return FileType::other;
}

// Wraps for what no clock ever said, as a damaged disk may.
std::int64_t nanoseconds(std::int64_t seconds, std::uint32_t rest) {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(seconds) * 1'000'000'000 + rest);
}

}  // namespace

FileFacts factsOf(const struct statx& status) {
  return {.inode = status.stx_ino,
          .size = static_cast<std::int64_t>(status.stx_size),
          .mtimeNS = nanoseconds(status.stx_mtime.tv_sec, status.stx_mtime.tv_nsec),
          .uid = status.stx_uid,
          .gid = status.stx_gid,
          .mode = static_cast<std::uint16_t>(status.stx_mode & 07777),
          .flags = static_cast<std::uint8_t>(status.stx_attributes & (fileImmutable | fileAppendOnly | fileNoDump)),
          .type = typeOf(status.stx_mode)};
}

FileFacts factsOf(std::uint64_t number, const btrfs_inode_item& item) {
  const std::uint64_t flags = le64toh(item.flags);
  const std::uint32_t mode = le32toh(item.mode);
  return {.inode = btrfsIdentity(number, le64toh(item.generation)),
          .size = static_cast<std::int64_t>(le64toh(item.size)),
          .mtimeNS = nanoseconds(static_cast<std::int64_t>(le64toh(item.mtime.sec)), le32toh(item.mtime.nsec)),
          .uid = le32toh(item.uid),
          .gid = le32toh(item.gid),
          .mode = static_cast<std::uint16_t>(mode & 07777),
          .flags = static_cast<std::uint8_t>((flags & inodeImmutable ? fileImmutable : 0) |
                                             (flags & inodeAppend ? fileAppendOnly : 0) |
                                             (flags & inodeNoDump ? fileNoDump : 0)),
          .type = typeOf(mode),
          .hasGeneration = true};
}

FileFacts placeholderFacts(FileType type) {
  FileFacts facts;
  facts.type = type;
  facts.hasGeneration = true;
  facts.isPlaceholder = true;
  return facts;
}

// FNV-1a, by words. Of an inline extent only the head is there, and its content follows.
std::uint64_t withExtent(std::uint64_t witness, std::int64_t size, std::uint64_t offset,
                         std::span<const std::byte> item) {
  const auto end = static_cast<std::uint64_t>(size);
  if (offset >= end) return witness;
  btrfs_file_extent_item extent{};
  std::memcpy(&extent, item.data(), std::min(item.size(), sizeof extent));
  const auto take = [&](std::uint64_t word) { witness = (witness ^ word) * 0x100000001b3; };
  take(offset);
  take(le64toh(extent.generation));
  take(extent.type);
  if (extent.type == BTRFS_FILE_EXTENT_INLINE) {
    take(le64toh(extent.ram_bytes));
  } else {
    take(le64toh(extent.offset));
    take(std::min<std::uint64_t>(le64toh(extent.num_bytes), end - offset));
  }
  return witness != 0 ? witness : witnessOfHoles;
}

std::size_t appendNameText(std::string& to, std::string_view bytes) {
  const std::size_t before = to.size();
  unsigned char all = 0;
  for (const char byte : bytes) all |= static_cast<unsigned char>(byte);
  const bool isAscii = all < 0x80;
  if (isAscii) {
    to += bytes;
  } else {
    to += nameText(bytes);
  }
  return to.size() - before;
}

}  // namespace quillmark::os
