// CodeSignature: whether a file's signature is that of a key we trust. Ed25519 (RFC 8032) over SHA-256.
// Threads: pure.
// Errors:  what can't be read or computed counts as not signed.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/identity/CodeNote.h"

namespace quillmark::os {

using Digest = std::array<unsigned char, 32>;

// The public half of a key that signs genuine clients.
struct CodeAnchor {
  std::array<unsigned char, 32> publicKey{};
  // Its first 14 digits, as notes name it.
  [[nodiscard]] std::string keyId() const;
  // Of 64 hexadecimal digits.
  [[nodiscard]] static std::optional<CodeAnchor> parse(std::string_view digits);
};

// Past this a file isn't read.
inline constexpr std::uint64_t mostCodeBytes = std::uint64_t{512} << 20;

// The note of an open file of the size.
[[nodiscard]] std::optional<CodeNote> noteOfFile(int fd, std::uint64_t bytes);
// The file's hash with the signature's bytes taken as zero; absent when it doesn't have just that size. Streams.
[[nodiscard]] std::optional<Digest> digestOfFile(int fd, std::uint64_t bytes, std::uint64_t signatureOffset);
[[nodiscard]] Digest digestOfText(std::string_view text);
// What is signed.
[[nodiscard]] std::string signedMessage(const Digest& digest);
[[nodiscard]] bool isSignedBy(const CodeAnchor& anchor, const Digest& digest, const Signature& signature);

}  // namespace quillmark::os
