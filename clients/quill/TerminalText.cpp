#include "quill/TerminalText.h"

#include <fmt/format.h>
#include <unicode/uchar.h>

#include <algorithm>

#include "base/Text.h"
#include "platform/NameText.h"

namespace quillmark::cli {
namespace {

constexpr char32_t softHyphen = 0xAD;
constexpr std::string_view cut = "…";

bool isObeyed(char32_t scalar) {
  const auto code = static_cast<UChar32>(scalar);
  const auto category = U_MASK(u_charType(code));
  return (category & (U_GC_CC_MASK | U_GC_ZL_MASK | U_GC_ZP_MASK)) != 0 ||
         u_hasBinaryProperty(code, UCHAR_BIDI_CONTROL);
}

// How many bytes in front no terminal obeys and no escape begins with.
std::size_t harmlessFront(std::string_view text) {
  const auto isPlain = [](char c) { return c >= ' ' && c <= '~'; };
  return static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isPlain) - text.begin());
}

// Appends the step at `at`, written out when a terminal would obey it.
void appendShown(std::string& shown, std::string_view text, std::size_t at, const Utf8Step& step) {
  if (!step.scalar) {
    for (std::size_t i = 0; i < step.length; ++i) {
      shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(text[at + i]));
    }
  } else if (isObeyed(*step.scalar)) {
    shown += fmt::format("\\u{{{:x}}}", static_cast<std::uint32_t>(*step.scalar));
  } else {
    shown.append(text, at, step.length);
  }
}

std::size_t widthOf(char32_t scalar) {
  const auto code = static_cast<UChar32>(scalar);
  const auto category = U_MASK(u_charType(code));
  if (scalar == softHyphen) return 1;
  if ((category & (U_GC_MN_MASK | U_GC_ME_MASK | U_GC_CF_MASK)) != 0) return 0;
  const int syllable = u_getIntPropertyValue(code, UCHAR_HANGUL_SYLLABLE_TYPE);
  if (syllable == U_HST_VOWEL_JAMO || syllable == U_HST_TRAILING_JAMO) return 0;
  const int width = u_getIntPropertyValue(code, UCHAR_EAST_ASIAN_WIDTH);
  return width == U_EA_WIDE || width == U_EA_FULLWIDTH ? 2 : 1;
}

std::size_t widthOf(const Utf8Step& step) { return step.scalar ? widthOf(*step.scalar) : 1; }

// The longest front that fits.
std::string_view front(std::string_view text, std::size_t width) {
  std::size_t at = 0;
  for (std::size_t used = 0; at < text.size();) {
    const Utf8Step step = decodeUtf8(text, at);
    used += widthOf(step);
    if (used > width) break;
    at += step.length;
  }
  return text.substr(0, at);
}

// The longest back that fits and begins with no combining mark.
std::string_view back(std::string_view text, std::size_t width) {
  std::size_t left = displayWidth(text);
  std::size_t at = 0;
  while (at < text.size()) {
    const Utf8Step step = decodeUtf8(text, at);
    if (left <= width && widthOf(step) > 0) break;
    left -= widthOf(step);
    at += step.length;
  }
  return text.substr(at);
}

}  // namespace

std::string shownText(std::string_view text) {
  if (harmlessFront(text) == text.size()) return std::string(text);
  const std::string named = displayName(text);
  std::string shown;
  for (std::size_t at = 0; at < named.size();) {
    const Utf8Step step = decodeUtf8(named, at);
    appendShown(shown, named, at, step);
    at += step.length;
  }
  return shown;
}

std::string shownLines(std::string_view text) {
  std::string shown;
  while (true) {
    const std::size_t end = text.find_first_of("\n\t");
    shown += shownText(text.substr(0, end));
    if (end == std::string_view::npos) return shown;
    shown += text[end];
    text.remove_prefix(end + 1);
  }
}

std::string plainWord(std::string_view text) {
  std::string word;
  for (const char c : shownText(text)) c == ' ' ? word += "\\x20" : word += c;
  return word.empty() ? "-" : word;
}

std::string shownJson(std::string_view json) {
  std::string shown;
  shown.reserve(json.size());
  for (std::size_t at = 0; at < json.size();) {
    const std::size_t harmless = harmlessFront(json.substr(at));
    shown.append(json, at, harmless);
    at += harmless;
    if (at == json.size()) break;
    const Utf8Step step = decodeUtf8(json, at);
    const bool blank = json[at] == '\n' || json[at] == '\t' || json[at] == '\r';
    if (step.scalar && isObeyed(*step.scalar) && !blank) {
      shown += fmt::format("\\u{:04x}", static_cast<std::uint32_t>(*step.scalar));
    } else {
      shown.append(json, at, step.length);
    }
    at += step.length;
  }
  return shown;
}

std::size_t displayWidth(std::string_view text) {
  std::size_t width = 0;
  for (std::size_t at = 0; at < text.size();) {
    const Utf8Step step = decodeUtf8(text, at);
    width += widthOf(step);
    at += step.length;
  }
  return width;
}

std::string shortened(std::string_view text, std::size_t width) {
  if (displayWidth(text) <= width) return std::string(text);
  if (width == 0) return {};
  const std::size_t behind = (width - 1) / 2;
  return std::string(front(text, width - 1 - behind)) + std::string(cut) + std::string(back(text, behind));
}

}  // namespace quillmark::cli
