#include "platform/NameText.h"

#include <algorithm>

#include "base/Text.h"

namespace quillmark {
namespace {

constexpr char32_t firstEscape = 0x10EF00;
constexpr char32_t lastEscape = 0x10EFFF;

bool isEscape(char32_t scalar) { return scalar >= firstEscape && scalar <= lastEscape; }

bool isControl(char32_t scalar) { return scalar < 0x20 || scalar == 0x7F; }

// How many bytes from here on are printable ASCII, as nearly all names are.
std::size_t plainRun(std::string_view bytes, std::size_t at) {
  const auto isOther = [](char byte) { return static_cast<signed char>(byte) < 0x20 || byte == 0x7F; };
  return static_cast<std::size_t>(std::find_if(bytes.begin() + static_cast<std::ptrdiff_t>(at), bytes.end(), isOther) -
                                  bytes.begin()) -
         at;
}

void escapeByte(std::string& text, char byte) { appendUtf8(text, firstEscape + static_cast<unsigned char>(byte)); }

}  // namespace

std::string nameText(std::string_view bytes, NameEscapes escapes) {
  std::string text;
  text.reserve(bytes.size());
  for (std::size_t at = 0; at < bytes.size();) {
    const std::size_t plain = plainRun(bytes, at);
    text.append(bytes, at, plain);
    at += plain;
    if (at == bytes.size()) break;
    const Utf8Step step = decodeUtf8(bytes, at);
    const bool escaped =
        !step.scalar || isEscape(*step.scalar) || (escapes == NameEscapes::controls && isControl(*step.scalar));
    if (escaped) {
      for (std::size_t i = 0; i < step.length; ++i) escapeByte(text, bytes[at + i]);
    } else {
      text.append(bytes, at, step.length);
    }
    at += step.length;
  }
  return text;
}

std::string nameBytes(std::string_view text) {
  std::string bytes;
  bytes.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Step step = decodeUtf8(text, at);
    if (step.scalar && isEscape(*step.scalar)) {
      bytes += static_cast<char>(*step.scalar - firstEscape);
    } else {
      bytes.append(text, at, step.length);
    }
    at += step.length;
  }
  return bytes;
}

bool isNameText(std::string_view text, NameEscapes escapes) { return nameText(nameBytes(text), escapes) == text; }

std::string displayName(std::string_view text) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string shown;
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Step step = decodeUtf8(text, at);
    const bool escaped = step.scalar && isEscape(*step.scalar);
    if (escaped || (step.scalar && isControl(*step.scalar))) {
      const auto byte = static_cast<unsigned>(escaped ? *step.scalar - firstEscape : *step.scalar);
      shown += "\\x";
      shown += digits[byte >> 4];
      shown += digits[byte & 15];
    } else {
      shown.append(text, at, step.length);
    }
    at += step.length;
  }
  return shown;
}

}  // namespace quillmark
