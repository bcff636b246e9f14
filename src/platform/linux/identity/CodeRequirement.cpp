#include "platform/linux/identity/CodeRequirement.h"

#include <algorithm>

namespace quillmark::os {
namespace {

// Takes the text apart from its front.
class Reader final {
 public:
  explicit Reader(std::string_view text) : rest_(text) {}

  // The words, between which any number of blanks may stand.
  [[nodiscard]] bool take(std::string_view words) {
    while (!words.empty()) {
      skipBlanks();
      const std::size_t blank = words.find(' ');
      const std::string_view word = words.substr(0, blank);
      if (!rest_.starts_with(word)) return false;
      rest_.remove_prefix(word.size());
      words.remove_prefix(blank == std::string_view::npos ? words.size() : blank + 1);
    }
    return true;
  }
  [[nodiscard]] std::optional<std::string> quoted() {
    skipBlanks();
    const std::size_t end = rest_.find('"', 1);
    if (!rest_.starts_with('"') || end == std::string_view::npos || end == 1) return std::nullopt;
    std::string text(rest_.substr(1, end - 1));
    rest_.remove_prefix(end + 1);
    return text;
  }
  [[nodiscard]] bool isAtEnd() {
    skipBlanks();
    return rest_.empty();
  }

 private:
  void skipBlanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(' '), rest_.size())); }
  std::string_view rest_;
};

}  // namespace

std::optional<CodeRequirement> CodeRequirement::parse(std::string_view text) {
  Reader reader(text);
  CodeRequirement requirement;
  if (!reader.take("anchor apple generic and (")) return std::nullopt;
  do {
    auto identifier = reader.take("identifier") ? reader.quoted() : std::nullopt;
    if (!identifier) return std::nullopt;
    requirement.identifiers.push_back(std::move(*identifier));
  } while (reader.take("or"));
  auto team = reader.take(") and certificate leaf[subject.OU] =") ? reader.quoted() : std::nullopt;
  if (!team || !reader.isAtEnd()) return std::nullopt;
  requirement.team = std::move(*team);
  return requirement;
}

bool CodeRequirement::isMetBy(std::string_view identifier, std::string_view ofTeam) const {
  return ofTeam == team && std::find(identifiers.begin(), identifiers.end(), identifier) != identifiers.end();
}

}  // namespace quillmark::os
