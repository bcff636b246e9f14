// CodeRequirement: what a peer's code has to be, in the form in which the service writes it down:
//   anchor apple generic and (identifier "A" or identifier "B") and certificate leaf[subject.OU] = "TEAM"
// The anchor is here the key that this build trusts.
// Threads: immutable.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quillmark::os {

struct CodeRequirement {
  std::vector<std::string> identifiers;
  std::string team;

  // Absent for a text of any other form.
  [[nodiscard]] static std::optional<CodeRequirement> parse(std::string_view text);
  [[nodiscard]] bool isMetBy(std::string_view identifier, std::string_view ofTeam) const;
};

}  // namespace quillmark::os
