#include "base/Uuid.h"

#include "base/Text.h"

namespace quillmark {
namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isHyphenPlace(std::size_t i) { return i == 8 || i == 13 || i == 18 || i == 23; }

std::string format(const Uuid& uuid, const char* digits) {
  std::string text;
  text.reserve(36);
  for (const std::uint8_t byte : uuid.bytes) {
    if (isHyphenPlace(text.size())) text += '-';
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

}  // namespace

std::optional<Uuid> Uuid::parse(std::string_view text) {
  if (text.size() != 36) return std::nullopt;
  Uuid uuid;
  std::size_t nibble = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (isHyphenPlace(i)) {
      if (text[i] != '-') return std::nullopt;
      continue;
    }
    const int digit = hexDigit(text[i]);
    if (digit < 0) return std::nullopt;
    auto& byte = uuid.bytes[nibble / 2];
    byte = static_cast<std::uint8_t>(nibble % 2 == 0 ? digit << 4 : byte | digit);
    ++nibble;
  }
  return uuid;
}

std::string Uuid::lower() const { return format(*this, "0123456789abcdef"); }
std::string Uuid::upper() const { return format(*this, "0123456789ABCDEF"); }

VolumeUuid::VolumeUuid(std::string_view text) : text_(asciiLower(text)) {}

}  // namespace quillmark
