// CodeNote: the ELF note that a genuine client carries: who it is, which key signed it, and the signature. Found by the
// program headers alone, which is what a loader goes by (elf(5)).
//
// Note: owner "Quillmark", type 1, in a descriptor of 160 bytes: identifier (64), team (16) and key ID (16) as text filled
// up with zero bytes, then the signature (64). The signature covers the whole file with its own bytes taken as zero.
// Threads: pure.
// Errors:  hostile files give no note; nothing outside the file's size is asked for.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "base/FunctionRef.h"

namespace quillmark::os {

inline constexpr std::size_t signatureBytes = 64;
using Signature = std::array<unsigned char, signatureBytes>;

struct CodeNote {
  std::string identifier;
  std::string team;
  std::string keyId;
  Signature signature{};
  std::uint64_t offset = 0;  // of the descriptor in the file
  [[nodiscard]] std::uint64_t signatureOffset() const { return offset + signaturePlace; }

  static constexpr std::size_t identifierBytes = 64, teamBytes = 16, keyIdBytes = 16;
  static constexpr std::size_t signaturePlace = identifierBytes + teamBytes + keyIdBytes;
  static constexpr std::size_t descriptorBytes = signaturePlace + signatureBytes;
};

// Fills the span with the file's bytes from the offset on; false when it can't.
using ReadAt = FunctionRef<bool(std::span<unsigned char> into, std::uint64_t offset)>;

// The file's only note of ours. Absent without one, with two, in what is no 64-bit ELF file of this byte order, and in
// one that is malformed.
[[nodiscard]] std::optional<CodeNote> findCodeNote(ReadAt read, std::uint64_t fileBytes);

}  // namespace quillmark::os
