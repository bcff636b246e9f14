// Names as text. A name is bytes outside and text inside; the backends convert, nothing above sees raw bytes.
// Well-formed UTF-8 stays as it is; each byte that is part of no well-formed scalar, and each byte of a scalar in
// U+10EF00 to U+10EFFF, becomes the scalar U+10EF00 + byte. One-to-one, and equal to the bytes for ordinary names.
// Threads: pure.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace quillmark {

enum class NameEscapes {
  illFormed,  // paths and file names
  controls,   // snapshot names and property lists: bytes below 0x20 and 0x7F too, so that XML can carry them
};

[[nodiscard]] std::string nameText(std::string_view bytes, NameEscapes escapes = NameEscapes::illFormed);
[[nodiscard]] std::string nameBytes(std::string_view text);
// False for text that no name has: encoding what it decodes to gives other text. Refuse it, or an escaped "/" or ".."
// gets past the checks.
[[nodiscard]] bool isNameText(std::string_view text, NameEscapes escapes = NameEscapes::illFormed);
// For people and their terminals: every escape and every control character as \xNN.
[[nodiscard]] std::string displayName(std::string_view text);

}  // namespace quillmark
