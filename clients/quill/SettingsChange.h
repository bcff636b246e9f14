// SettingsChange: some of the helper's settings with the values that they shall have.
// Threads: pure.
// Errors:  wrongUse for a setting that there is none of, and for a value that it can't have.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quillmark::cli {

class SettingsChange final {
 public:
  // One setting: words as typed, several for a list.
  static SettingsChange ofWords(const std::string& key, const std::vector<std::string>& words);
  // As many as the JSON object names.
  static SettingsChange ofJson(std::string_view text);

  [[nodiscard]] const std::vector<std::string>& keys() const { return keys_; }
  // Settings as JSON text in and out.
  [[nodiscard]] std::string appliedTo(std::string_view settings) const;
  // The changed settings that aren't in there as they were given.
  [[nodiscard]] std::vector<std::string> mendedIn(std::string_view stored) const;

 private:
  explicit SettingsChange(std::string object);

  std::vector<std::string> keys_;
  std::string object_;  // JSON
};

}  // namespace quillmark::cli
