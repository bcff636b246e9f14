#include "quill/SettingsChange.h"

#include <fmt/format.h>

#include <array>
#include <charconv>

#include "base/Text.h"
#include "quill/Failures.h"
#include "scheduling/rules/HelperSettings.h"
#include "wire/Json.h"
#include "wire/JsonText.h"

namespace quillmark::cli {
namespace {

namespace json = boost::json;

constexpr std::int64_t leastHours = 1, mostHours = 720;

// Every setting with a value of its type.
json::object examples() {
  const ParsedJson parsed(encodeJson(HelperSettings()));
  return json::value(parsed.value(), {}).as_object();
}

json::object objectIn(std::string_view text) {
  const ParsedJson parsed(text);
  return json::value(parsed.value(), {}).as_object();
}

json::value exampleOf(const json::object& all, std::string_view key) {
  if (const json::value* example = all.if_contains(key)) return *example;
  std::vector<std::string> keys;
  for (const auto& entry : all) keys.emplace_back(entry.key());
  throw wrongUse(fmt::format("There is no setting \"{}\".", key), "The settings: " + join(keys, ", "));
}

Error notOfThatKind(std::string_view key, std::string_view kind) {
  return wrongUse(fmt::format("The setting {} is {}.", key, kind));
}

json::value switchMeant(std::string_view key, const std::string& word) {
  if (word == "true" || word == "on") return true;
  if (word == "false" || word == "off") return false;
  throw notOfThatKind(key, "true or false");
}

json::value numberMeant(std::string_view key, const std::string& word) {
  std::int64_t number = 0;
  const auto [end, failure] = std::from_chars(word.data(), word.data() + word.size(), number);
  if (failure != std::errc() || end != word.data() + word.size()) throw notOfThatKind(key, "a whole number");
  return number;
}

json::value listMeant(std::string_view key, const std::vector<std::string>& words) {
  if (words.size() == 1 && words.front().starts_with('[')) {
    try {
      const ParsedJson parsed(words.front());
      return json::value(parsed.value(), {});
    } catch (const Error& error) {
      throw wrongUse(fmt::format("{}: {}", key, error.description()));
    }
  }
  json::array list;
  for (const std::string& word : words) list.emplace_back(word);
  return list;
}

json::value valueMeant(std::string_view key, const json::value& example, const std::vector<std::string>& words) {
  if (words.empty()) {
    throw wrongUse(fmt::format("The value of {} is missing.", key), example.is_array() ? "An empty list is []." : "");
  }
  if (example.is_array()) return listMeant(key, words);
  if (words.size() > 1) throw wrongUse(fmt::format("The setting {} has one value, not {}.", key, words.size()));
  if (example.is_bool()) return switchMeant(key, words.front());
  if (example.is_string()) return json::value(words.front());
  return numberMeant(key, words.front());
}

void requireRange(std::string_view key, const json::value& value) {
  const std::int64_t* number = value.if_int64();
  if (number && key == "safetySnapshotRetentionHours" && (*number < leastHours || *number > mostHours)) {
    throw notOfThatKind(key, fmt::format("from {} to {} hours", leastHours, mostHours));
  }
}

void requireKnownWord(std::string_view key, const json::value& value) {
  using Words = std::vector<std::string_view>;
  static constexpr std::string_view modes = "indexingMode", sensitivity = "monitoringSensitivity";
  const json::string* text = value.if_string();
  if (!text || (key != modes && key != sensitivity)) return;
  const Words words = key == modes ? Words{"fullScan", "disabled"} : Words{"low", "normal", "high"};
  for (const std::string_view word : words) {
    if (word == std::string_view(*text)) return;
  }
  throw notOfThatKind(key, fmt::format("one of {}", fmt::join(words, ", ")));
}

std::string serialized(const json::object& object) { return json::serialize(object); }

}  // namespace

SettingsChange::SettingsChange(std::string object) : object_(std::move(object)) {
  const json::object known = examples();
  for (const auto& entry : objectIn(object_)) {
    (void)exampleOf(known, entry.key());
    requireRange(entry.key(), entry.value());
    requireKnownWord(entry.key(), entry.value());
    keys_.emplace_back(entry.key());
  }
  try {
    (void)decodeJson<HelperSettings>(object_);
  } catch (const Error& error) {
    throw wrongUse(error.description());
  }
}

SettingsChange SettingsChange::ofWords(const std::string& key, const std::vector<std::string>& words) {
  json::object object;
  object[key] = valueMeant(key, exampleOf(examples(), key), words);
  return SettingsChange(serialized(object));
}

SettingsChange SettingsChange::ofJson(std::string_view text) {
  try {
    const ParsedJson parsed(text);
    if (parsed.value().is_object()) return SettingsChange(std::string(text));
  } catch (const Error& error) {
    if (error.domain() == clientErrorDomain) throw;
    throw wrongUse(error.description());
  }
  throw wrongUse("Settings are a JSON object.", "See: quill settings --json");
}

std::string SettingsChange::appliedTo(std::string_view settings) const {
  json::object all = objectIn(settings);
  for (const auto& entry : objectIn(object_)) {
    all.insert_or_assign(entry.key(), entry.value());
  }
  return serialized(all);
}

std::vector<std::string> SettingsChange::mendedIn(std::string_view stored) const {
  const json::object all = objectIn(stored);
  std::vector<std::string> mended;
  for (const auto& entry : objectIn(object_)) {
    const json::value* value = all.if_contains(entry.key());
    if (!entry.value().is_null() && (!value || *value != entry.value())) mended.emplace_back(entry.key());
  }
  return mended;
}

}  // namespace quillmark::cli
