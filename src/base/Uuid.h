// Uuid: 128 bits and their text (RFC 9562); VolumeUuid: a volume's identity as stores and maps key it.
// Threads: immutable.
#pragma once

#include <array>
#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace quillmark {

struct Uuid {
  std::array<std::uint8_t, 16> bytes{};

  // Takes exactly the 36-character form, in either letter case.
  [[nodiscard]] static std::optional<Uuid> parse(std::string_view text);
  [[nodiscard]] std::string lower() const;
  [[nodiscard]] std::string upper() const;
  [[nodiscard]] bool isNil() const { return bytes == std::array<std::uint8_t, 16>{}; }
  auto operator<=>(const Uuid&) const = default;
};

// Folded once to lower case, so that two spellings of one volume meet in one key. The text need not be well formed.
class VolumeUuid final {
 public:
  explicit VolumeUuid(std::string_view text);
  [[nodiscard]] const std::string& text() const { return text_; }
  auto operator<=>(const VolumeUuid&) const = default;

 private:
  std::string text_;
};

}  // namespace quillmark
