// What the Linux backend knows of the objects of a tree, whichever way they are read: one function for each fact, so that
// the ways agree.
// Threads: pure.
#pragma once

#include <linux/btrfs_tree.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "platform/FileFacts.h"

namespace quillmark::os {

// The inode number of what stands for a nested subvolume in a snapshot.
inline constexpr std::uint64_t nestedStandIn = 2;

// One-to-one as long as numbers stay below 2^40 and generations below 2^24, and small for small numbers.
[[nodiscard]] constexpr std::uint64_t btrfsIdentity(std::uint64_t number, std::uint64_t generation) {
  return (number << 24 | number >> 40) ^ static_cast<std::uint32_t>(generation);
}

[[nodiscard]] FileFacts factsOf(const struct statx& status);
[[nodiscard]] FileFacts factsOf(std::uint64_t number, const btrfs_inode_item& item);
[[nodiscard]] FileFacts placeholderFacts(FileType type);

// The witness of a file's content: begins as that of one without extents, and takes them in by ascending offset. Of each
// counts when it was written and what of it is shown where, for holes and clones make nothing anew; not where it lies on
// the device, for a balance moves that, and nothing of what is reserved past the file's end.
inline constexpr std::uint64_t witnessOfHoles = 0xcbf29ce484222325;
[[nodiscard]] std::uint64_t withExtent(std::uint64_t witness, std::int64_t size, std::uint64_t offset,
                                       std::span<const std::byte> item);

// Adds the text of a name, and gives its length as text.
std::size_t appendNameText(std::string& to, std::string_view bytes);

}  // namespace quillmark::os
