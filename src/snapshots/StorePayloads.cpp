#include "snapshots/StorePayloads.h"

#include <boost/json/basic_parser_impl.hpp>

#include <charconv>

#include "wire/Json.h"
#include "wire/JsonText.h"

namespace quillmark::StorePayloads {
namespace {

namespace json = boost::json;

// Counts the members of all objects as they stand in the text.
struct MemberCounter {
  static constexpr std::size_t max_object_size = static_cast<std::size_t>(-1);
  static constexpr std::size_t max_array_size = static_cast<std::size_t>(-1);
  static constexpr std::size_t max_key_size = static_cast<std::size_t>(-1);
  static constexpr std::size_t max_string_size = static_cast<std::size_t>(-1);

  std::size_t members = 0;

  bool on_object_end(std::size_t count, json::error_code&) { return members += count, true; }
  bool on_document_begin(json::error_code&) { return true; }
  bool on_document_end(json::error_code&) { return true; }
  bool on_object_begin(json::error_code&) { return true; }
  bool on_array_begin(json::error_code&) { return true; }
  bool on_array_end(std::size_t, json::error_code&) { return true; }
  bool on_key_part(json::string_view, std::size_t, json::error_code&) { return true; }
  bool on_key(json::string_view, std::size_t, json::error_code&) { return true; }
  bool on_string_part(json::string_view, std::size_t, json::error_code&) { return true; }
  bool on_string(json::string_view, std::size_t, json::error_code&) { return true; }
  bool on_number_part(json::string_view, json::error_code&) { return true; }
  bool on_int64(std::int64_t, json::string_view, json::error_code&) { return true; }
  bool on_uint64(std::uint64_t, json::string_view, json::error_code&) { return true; }
  bool on_double(double, json::string_view, json::error_code&) { return true; }
  bool on_bool(bool, json::error_code&) { return true; }
  bool on_null(json::error_code&) { return true; }
  bool on_comment_part(json::string_view, json::error_code&) { return true; }
  bool on_comment(json::string_view, json::error_code&) { return true; }
};

std::size_t membersGiven(std::string_view text) {
  json::parse_options options;
  options.max_depth = maxJsonDepth;
  json::basic_parser<MemberCounter> parser(options);
  json::error_code failure;
  parser.write_some(false, text.data(), text.size(), failure);
  return parser.handler().members;
}

std::size_t membersKept(const json::value& value) {
  std::size_t members = 0;
  if (const json::object* object = value.if_object()) {
    members = object->size();
    for (const auto& member : *object) members += membersKept(member.value());
  }
  if (const json::array* array = value.if_array()) {
    for (const json::value& item : *array) members += membersKept(item);
  }
  return members;
}

// The parser lets the last of two equal members count.
json::value parse(std::string_view text) {
  json::value value = parseJson(text, maxJsonDepth);
  if (membersGiven(text) != membersKept(value)) throw malformedJson("$", "gives a member twice");
  return value;
}

const json::object& objectAt(const json::value& value, const std::string& where) {
  if (!value.is_object()) throw malformedJson(where, "is no object");
  return value.get_object();
}

std::uint64_t wholeNumberAt(const json::value& value, const std::string& where) {
  if (const std::uint64_t* number = value.if_uint64()) return *number;
  if (const std::int64_t* number = value.if_int64(); number && *number >= 0) return static_cast<std::uint64_t>(*number);
  throw malformedJson(where, "is no whole number in range");
}

std::set<Xid> xidsAt(const json::value& value, const std::string& where) {
  if (!value.is_array()) throw malformedJson(where, "is no array");
  std::set<Xid> xids;
  for (const json::value& item : value.get_array()) xids.insert(Xid{wholeNumberAt(item, where)});
  return xids;
}

json::array arrayOf(const std::set<Xid>& xids) {
  json::array array;
  array.reserve(xids.size());
  for (const Xid xid : xids) array.emplace_back(xid.value);
  return array;
}

Texts textsAt(const json::value& value, const std::string& where) {
  Texts texts;
  for (const auto& [key, text] : objectAt(value, where)) {
    if (!text.is_string()) throw malformedJson(where + "." + std::string(key), "is no string");
    texts[std::string(key)] = std::string(text.get_string());
  }
  return texts;
}

json::object objectOf(const Texts& texts) {
  json::object object;
  for (const auto& [key, text] : texts) object.emplace(key, json::string(text));
  return object;
}

}  // namespace

std::string encodeProtectedXids(const std::set<Xid>& xids) {
  return json::serialize(json::object{{"v", 1}, {"xids", arrayOf(xids)}});
}

std::set<Xid> decodeProtectedXids(std::string_view text) {
  const json::value value = parse(text);
  const json::object& payload = objectAt(value, "$");
  const json::value* version = payload.if_contains("v");
  if (!version || !(version->is_int64() || version->is_uint64())) throw malformedJson("$.v", "is no whole number");
  const json::value* xids = payload.if_contains("xids");
  if (!xids) throw malformedJson("$", "lacks the key \"xids\"");
  return xidsAt(*xids, "$.xids");
}

std::string encodeXidsByVolume(const XidsByVolume& xids) {
  json::object object;
  for (const auto& [volume, set] : xids) object.emplace(volume.text(), arrayOf(set));
  return json::serialize(object);
}

XidsByVolume decodeXidsByVolume(std::string_view text) {
  XidsByVolume xids;
  const json::value value = parse(text);
  for (const auto& [volume, set] : objectAt(value, "$")) {
    xids[VolumeUuid(volume)].merge(xidsAt(set, "$." + std::string(volume)));
  }
  return xids;
}

std::string encodeTexts(const Texts& texts) { return json::serialize(objectOf(texts)); }

Texts decodeTexts(std::string_view text) { return textsAt(parse(text), "$"); }

std::string encodeTextsByVolume(const TextsByVolume& texts) {
  json::object object;
  for (const auto& [volume, own] : texts) object.emplace(volume.text(), objectOf(own));
  return json::serialize(object);
}

TextsByVolume decodeTextsByVolume(std::string_view text) {
  TextsByVolume texts;
  const json::value value = parse(text);
  for (const auto& [volume, own] : objectAt(value, "$")) {
    texts[VolumeUuid(volume)].merge(textsAt(own, "$." + std::string(volume)));
  }
  return texts;
}

std::string tagKey(Xid xid) { return std::to_string(xid.value); }

std::optional<Xid> xidOfTagKey(std::string_view key) {
  Xid xid;
  const auto [end, failure] = std::from_chars(key.data(), key.data() + key.size(), xid.value);
  if (failure != std::errc() || tagKey(xid) != key) return std::nullopt;
  return xid;
}

}  // namespace quillmark::StorePayloads
