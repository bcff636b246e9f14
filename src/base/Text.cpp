#include "base/Text.h"

#include <algorithm>

namespace quillmark {
namespace {

bool isAscii(char byte) { return static_cast<signed char>(byte) >= 0; }
bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

char asciiLowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

}  // namespace

Utf8Step decodeUtf8(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  if (lead < 0x80) return {lead, 1};
  // The second byte's range carries the exclusions (overlong forms, surrogates, past U+10FFFF): RFC 3629, section 4.
  unsigned char low = 0x80, high = 0xBF;
  std::size_t need = 0;
  char32_t scalar = 0;
  if (lead >= 0xC2 && lead <= 0xDF) {
    need = 1, scalar = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    need = 2, scalar = lead & 0x0F;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    need = 3, scalar = lead & 0x07;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return {std::nullopt, 1};
  }
  for (std::size_t i = 1; i <= need; ++i) {
    if (at + i >= text.size()) return {std::nullopt, i};
    const auto byte = static_cast<unsigned char>(text[at + i]);
    if (i == 1 ? byte < low || byte > high : !isContinuation(byte)) return {std::nullopt, i};
    scalar = (scalar << 6) | (byte & 0x3F);
  }
  return {scalar, need + 1};
}

void appendUtf8(std::string& text, char32_t scalar) {
  const auto put = [&](char32_t byte) { text += static_cast<char>(byte); };
  if (scalar < 0x80) {
    put(scalar);
  } else if (scalar < 0x800) {
    put(0xC0 | scalar >> 6), put(0x80 | (scalar & 0x3F));
  } else if (scalar < 0x10000) {
    put(0xE0 | scalar >> 12), put(0x80 | (scalar >> 6 & 0x3F)), put(0x80 | (scalar & 0x3F));
  } else {
    put(0xF0 | scalar >> 18), put(0x80 | (scalar >> 12 & 0x3F)), put(0x80 | (scalar >> 6 & 0x3F));
    put(0x80 | (scalar & 0x3F));
  }
}

bool isValidUtf8(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Step step = decodeUtf8(text, at);
    if (!step.scalar) return false;
    at += step.length;
  }
  return true;
}

std::string repairUtf8(std::string_view bytes) {
  if (std::all_of(bytes.begin(), bytes.end(), isAscii)) return std::string(bytes);
  std::string text;
  text.reserve(bytes.size());
  for (std::size_t at = 0; at < bytes.size();) {
    const Utf8Step step = decodeUtf8(bytes, at);
    if (step.scalar) {
      text.append(bytes, at, step.length);
    } else {
      text += "\xEF\xBF\xBD";
    }
    at += step.length;
  }
  return text;
}

std::u32string scalars(std::string_view text) {
  std::u32string result;
  result.reserve(text.size());
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Step step = decodeUtf8(text, at);
    result += step.scalar.value_or(U'\uFFFD');
    at += step.length;
  }
  return result;
}

std::string asciiLower(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), asciiLowered);
  return result;
}

bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return asciiLowered(x) == asciiLowered(y); });
}

bool isWhitespaceOrNewline(char32_t scalar) {
  return (scalar >= 0x09 && scalar <= 0x0D) || scalar == 0x20 || scalar == 0x85 || scalar == 0xA0 || scalar == 0x1680 ||
         (scalar >= 0x2000 && scalar <= 0x200A) || scalar == 0x2028 || scalar == 0x2029 || scalar == 0x202F ||
         scalar == 0x205F || scalar == 0x3000;
}

std::string trimWhitespaceAndNewlines(std::string_view text) {
  std::size_t begin = text.size(), end = 0;
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Step step = decodeUtf8(text, at);
    if (!step.scalar || !isWhitespaceOrNewline(*step.scalar)) {
      begin = std::min(begin, at);
      end = at + step.length;
    }
    at += step.length;
  }
  return end == 0 ? std::string() : std::string(text.substr(begin, end - begin));
}

std::string join(const std::vector<std::string>& parts, std::string_view separator) {
  std::string result;
  for (const std::string& part : parts) {
    if (&part != &parts.front()) result += separator;
    result += part;
  }
  return result;
}

}  // namespace quillmark
