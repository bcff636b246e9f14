// Text helpers over UTF-8 (RFC 3629): scalars, repair, trimming, ASCII case.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmark {

// One step of a walk over UTF-8.
struct Utf8Step {
  std::optional<char32_t> scalar;  // absent when the bytes here are ill formed
  std::size_t length = 0;          // bytes to go on by, at least 1; an ill-formed maximal subpart is one step
};
// Needs at < text.size().
[[nodiscard]] Utf8Step decodeUtf8(std::string_view text, std::size_t at);
void appendUtf8(std::string& text, char32_t scalar);

[[nodiscard]] bool isValidUtf8(std::string_view text);
// Ill-formed sequences become U+FFFD, one for each maximal subpart.
[[nodiscard]] std::string repairUtf8(std::string_view bytes);
// The scalars of well-formed text; each ill-formed step counts as U+FFFD.
[[nodiscard]] std::u32string scalars(std::string_view text);

[[nodiscard]] std::string asciiLower(std::string_view text);
[[nodiscard]] bool equalsIgnoringAsciiCase(std::string_view a, std::string_view b);
// White_Space of Unicode, line separators included.
[[nodiscard]] bool isWhitespaceOrNewline(char32_t scalar);
[[nodiscard]] std::string trimWhitespaceAndNewlines(std::string_view text);
[[nodiscard]] std::string join(const std::vector<std::string>& parts, std::string_view separator);

}  // namespace quillmark
