#include "platform/linux/identity/CodeSignature.h"

#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

namespace quillmark::os {
namespace {

constexpr std::size_t chunkBytes = 256 * 1024;

template <auto release>
struct Release {
  void operator()(auto* object) const { release(object); }
};
using DigestContext = std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>>;
using Key = std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>>;

bool readFully(int fd, std::span<unsigned char> into, std::uint64_t offset) {
  while (!into.empty()) {
    const ssize_t count = ::pread(fd, into.data(), into.size(), static_cast<off_t>(offset));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    into = into.subspan(static_cast<std::size_t>(count));
    offset += static_cast<std::uint64_t>(count);
  }
  return true;
}

bool isAtItsEnd(int fd, std::uint64_t bytes) {
  unsigned char more;
  return ::pread(fd, &more, 1, static_cast<off_t>(bytes)) == 0;
}

// Zeroes what of the signature lies in the chunk.
void blank(std::span<unsigned char> chunk, std::uint64_t offset, std::uint64_t signature) {
  const std::uint64_t from = std::max(offset, signature);
  const std::uint64_t to = std::min(offset + chunk.size(), signature + signatureBytes);
  if (from < to) std::fill(chunk.begin() + (from - offset), chunk.begin() + (to - offset), 0);
}

int valueOf(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  return -1;
}

}  // namespace

Digest digestOfText(std::string_view text) {
  Digest digest{};
  // Fails only where the library has no memory or lacks the algorithm; nothing can be told apart then.
  if (EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_sha256(), nullptr) != 1) std::abort();
  return digest;
}

std::string CodeAnchor::keyId() const {
  static constexpr char digits[] = "0123456789abcdef";
  std::string id;
  // Whole bytes, and room for the zero that ends the field.
  for (std::size_t i = 0; id.size() < CodeNote::keyIdBytes - 2; ++i) {
    id += digits[publicKey[i] >> 4];
    id += digits[publicKey[i] & 15];
  }
  return id;
}

std::optional<CodeAnchor> CodeAnchor::parse(std::string_view digits) {
  CodeAnchor anchor;
  if (digits.size() != 2 * anchor.publicKey.size()) return std::nullopt;
  for (std::size_t i = 0; i < anchor.publicKey.size(); ++i) {
    const int high = valueOf(digits[2 * i]), low = valueOf(digits[2 * i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    anchor.publicKey[i] = static_cast<unsigned char>(high * 16 + low);
  }
  return anchor;
}

std::optional<CodeNote> noteOfFile(int fd, std::uint64_t bytes) {
  return findCodeNote([fd](std::span<unsigned char> into, std::uint64_t offset) { return readFully(fd, into, offset); },
                      bytes);
}

std::optional<Digest> digestOfFile(int fd, std::uint64_t bytes, std::uint64_t signatureOffset) {
  const DigestContext context(EVP_MD_CTX_new());
  if (bytes > mostCodeBytes || !context || EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr) != 1) {
    return std::nullopt;
  }
  std::vector<unsigned char> buffer(std::min<std::uint64_t>(bytes, chunkBytes));
  for (std::uint64_t offset = 0; offset < bytes; offset += buffer.size()) {
    buffer.resize(std::min<std::uint64_t>(bytes - offset, chunkBytes));
    if (!readFully(fd, buffer, offset)) return std::nullopt;
    blank(buffer, offset, signatureOffset);
    if (EVP_DigestUpdate(context.get(), buffer.data(), buffer.size()) != 1) return std::nullopt;
  }
  Digest digest{};
  if (!isAtItsEnd(fd, bytes) || EVP_DigestFinal_ex(context.get(), digest.data(), nullptr) != 1) return std::nullopt;
  return digest;
}

std::string signedMessage(const Digest& digest) {
  std::string message("Quillmark code 1\0", 17);
  message.append(digest.begin(), digest.end());
  return message;
}

bool isSignedBy(const CodeAnchor& anchor, const Digest& digest, const Signature& signature) {
  const Key key(
      EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, anchor.publicKey.data(), anchor.publicKey.size()));
  const DigestContext context(EVP_MD_CTX_new());
  if (!key || !context || EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) != 1) return false;
  const std::string message = signedMessage(digest);
  return EVP_DigestVerify(context.get(), signature.data(), signature.size(),
                          reinterpret_cast<const unsigned char*>(message.data()), message.size()) == 1;
}

}  // namespace quillmark::os
