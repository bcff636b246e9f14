// FileFacts: what a file system tells of one object of a tree that is read.
// Threads: values. Units: sizes in bytes, times in nanoseconds since 1970.
#pragma once

#include <cstdint>

#include "platform/posix.h"

namespace quillmark {

// Flags of a file that count as part of it (chattr(1)).
enum FileFlag : std::uint8_t { fileImmutable = 0x10, fileAppendOnly = 0x20, fileNoDump = 0x40 };

struct FileFacts {
  // Identity within the file system: of the number and what tells apart those who bear it one after the other.
  std::uint64_t inode = 0;
  std::int64_t size = 0;  // as stat gives it
  std::int64_t mtimeNS = 0;
  // What changes whenever the content does, as the file system knows it. Of a regular file alone.
  std::uint64_t generation = 0;
  std::uint32_t uid = 0;
  std::uint32_t gid = 0;
  std::uint16_t mode = 0;  // permission bits, setuid, setgid and sticky
  std::uint8_t flags = 0;  // FileFlag bits
  FileType type = FileType::other;
  // The generation is all there is to know, even if it is 0. False where the file system keeps no such count.
  bool hasGeneration = false;
  // Something else begins here, a nested volume or a mount: nothing but the type is told of it, and it isn't entered.
  bool isPlaceholder = false;
  // The content lies elsewhere and would have to be fetched.
  bool isDataless = false;

  bool operator==(const FileFacts&) const = default;
};

}  // namespace quillmark
