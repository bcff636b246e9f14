// The one coder of records. Heavy: include it only where records are described.
//
//   template <>
//   struct quillmark::Description<Volume> {
//     static void fields(auto& field, auto& volume) {
//       field("name", volume.name);              // required
//       field("tag", volume.tag);                // std::optional: left out when empty
//       field.lenient("size", volume.size);      // its default when missing
//     }
//   };
//   QUILLMARK_RECORD(quillmark::Volume)
#pragma once

#include <boost/json.hpp>

#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "base/Date.h"
#include "base/Xid.h"
#include "wire/Json.h"
#include "wire/JsonText.h"

namespace quillmark {

// Specialised for each record: static void fields(auto& field, auto& record).
template <class Record>
struct Description;

// Specialised for each enumeration: static constexpr std::array names{std::pair{value, "name"}, ...}.
template <class Enumeration>
struct CaseNames;

enum class DateStyle { referenceSeconds, iso8601 };

template <class Record>
constexpr DateStyle dateStyleOf() {
  if constexpr (requires { Description<Record>::dateStyle; }) return Description<Record>::dateStyle;
  return DateStyle::referenceSeconds;
}

namespace coding {

namespace json = boost::json;

template <class Type>
inline constexpr bool isOptional = false;
template <class Type>
inline constexpr bool isOptional<std::optional<Type>> = true;

template <class Type>
json::value encode(const Type& value, DateStyle dates);
template <class Type>
void decode(const json::value& from, Type& into, const std::string& where, DateStyle dates);

struct Encoder {
  json::object& object;
  DateStyle dates;
  template <class Type>
  void operator()(std::string_view key, const Type& value) {
    if constexpr (isOptional<Type>) {
      if (value) object.emplace(key, encode(*value, dates));
    } else {
      object.emplace(key, encode(value, dates));
    }
  }
  template <class Type>
  void lenient(std::string_view key, const Type& value) {
    (*this)(key, value);
  }
};

struct Decoder {
  const json::object& object;
  const std::string& where;
  DateStyle dates;
  template <class Type>
  void operator()(std::string_view key, Type& value) {
    const json::value* found = present(key);
    if constexpr (isOptional<Type>) {
      if (found) decode(*found, value.emplace(), where + "." + std::string(key), dates);
    } else {
      if (!found) throw malformedJson(where, "lacks the key \"" + std::string(key) + "\"");
      decode(*found, value, where + "." + std::string(key), dates);
    }
  }
  template <class Type>
  void lenient(std::string_view key, Type& value) {
    if (const json::value* found = present(key)) decode(*found, value, where + "." + std::string(key), dates);
  }

 private:
  const json::value* present(std::string_view key) const {
    const json::value* found = object.if_contains(key);
    return found && !found->is_null() ? found : nullptr;
  }
};

// A whole number of any spelling ("3", "3.0", "3e0") within the type's range.
template <class Integer>
bool toInteger(const json::value& from, Integer& into) {
  if (const auto* number = from.if_int64())
    return into = static_cast<Integer>(*number), std::in_range<Integer>(*number);
  if (const auto* number = from.if_uint64())
    return into = static_cast<Integer>(*number), std::in_range<Integer>(*number);
  const auto* number = from.if_double();
  if (!number || std::trunc(*number) != *number) return false;
  const double low = static_cast<double>(std::numeric_limits<Integer>::min());
  const double past = std::ldexp(1.0, std::numeric_limits<Integer>::digits);
  if (*number < low || *number >= past) return false;
  into = static_cast<Integer>(*number);
  return true;
}

template <class Type>
json::value encode(const Type& value, DateStyle dates) {
  if constexpr (std::is_same_v<Type, bool> || std::is_arithmetic_v<Type>) {
    return value;
  } else if constexpr (std::is_same_v<Type, std::string>) {
    return json::string(value);
  } else if constexpr (std::is_same_v<Type, Date>) {
    if (dates == DateStyle::iso8601) return json::string(iso8601(value));
    return value.secondsSinceReference();
  } else if constexpr (std::is_same_v<Type, Xid>) {
    return value.value;
  } else if constexpr (std::is_enum_v<Type>) {
    for (const auto& [known, name] : CaseNames<Type>::names) {
      if (known == value) return json::string(name);
    }
    throw malformedJson("enumeration", "holds a value without a name");
  } else if constexpr (requires { typename Type::mapped_type; }) {
    if constexpr (std::is_same_v<typename Type::key_type, std::string>) {
      json::object object;
      for (const auto& [key, item] : value) object.emplace(key, encode(item, dates));
      return object;
    } else {
      json::array pairs;
      for (const auto& [key, item] : value) {
        pairs.push_back(encode(key, dates));
        pairs.push_back(encode(item, dates));
      }
      return pairs;
    }
  } else if constexpr (requires { value.begin(); }) {
    json::array array;
    array.reserve(value.size());
    for (const auto& item : value) array.push_back(encode(item, dates));
    return array;
  } else {
    json::object object;
    Encoder encoder{object, dates};
    Description<Type>::fields(encoder, value);
    return object;
  }
}

template <class Type>
void decode(const json::value& from, Type& into, const std::string& where, DateStyle dates) {
  if constexpr (std::is_same_v<Type, bool>) {
    if (!from.is_bool()) throw malformedJson(where, "is no boolean");
    into = from.get_bool();
  } else if constexpr (std::is_integral_v<Type>) {
    if (!toInteger(from, into)) throw malformedJson(where, "is no whole number in range");
  } else if constexpr (std::is_floating_point_v<Type>) {
    if (!from.is_number()) throw malformedJson(where, "is no number");
    into = from.to_number<Type>();
  } else if constexpr (std::is_same_v<Type, std::string>) {
    if (!from.is_string()) throw malformedJson(where, "is no string");
    into.assign(from.get_string().data(), from.get_string().size());
  } else if constexpr (std::is_same_v<Type, Date>) {
    if (dates == DateStyle::iso8601) {
      const std::optional<Date> date = from.is_string() ? parseIso8601(from.get_string()) : std::nullopt;
      if (!date) throw malformedJson(where, "is no ISO 8601 date");
      into = *date;
    } else {
      double seconds = 0;
      decode(from, seconds, where, dates);
      into = Date::fromReference(seconds);
    }
  } else if constexpr (std::is_same_v<Type, Xid>) {
    decode(from, into.value, where, dates);
  } else if constexpr (std::is_enum_v<Type>) {
    std::string word;
    decode(from, word, where, dates);
    for (const auto& [known, name] : CaseNames<Type>::names) {
      if (word == name) return void(into = known);
    }
    throw malformedJson(where, "holds the unknown word \"" + word + "\"");
  } else if constexpr (requires { typename Type::mapped_type; }) {
    if constexpr (std::is_same_v<typename Type::key_type, std::string>) {
      if (!from.is_object()) throw malformedJson(where, "is no object");
      for (const auto& [key, item] : from.get_object()) {
        decode(item, into[std::string(key)], where + "." + std::string(key), dates);
      }
    } else {
      if (!from.is_array() || from.get_array().size() % 2 != 0) throw malformedJson(where, "is no array of pairs");
      const json::array& pairs = from.get_array();
      for (std::size_t i = 0; i < pairs.size(); i += 2) {
        typename Type::key_type key{};
        decode(pairs[i], key, where, dates);
        decode(pairs[i + 1], into[key], where + "." + std::to_string(i), dates);
      }
    }
  } else if constexpr (requires { typename Type::key_compare; }) {
    if (!from.is_array()) throw malformedJson(where, "is no array");
    for (const json::value& item : from.get_array()) {
      typename Type::key_type key{};
      decode(item, key, where, dates);
      into.insert(std::move(key));
    }
  } else if constexpr (requires { into.emplace_back(); }) {
    if (!from.is_array()) throw malformedJson(where, "is no array");
    into.clear();
    into.reserve(from.get_array().size());
    for (const json::value& item : from.get_array()) {
      const std::string itemPlace = where + "[" + std::to_string(into.size()) + "]";
      decode(item, into.emplace_back(), itemPlace, dates);
    }
  } else {
    if (!from.is_object()) throw malformedJson(where, "is no object");
    Decoder decoder{from.get_object(), where, dates};
    Description<Type>::fields(decoder, into);
  }
}

template <class Type>
struct RecordOf {
  using type = Type;
};
template <class Type>
struct RecordOf<std::vector<Type>> {
  using type = Type;
};

}  // namespace coding

template <class Record>
std::string encodeJson(const Record& record) {
  return boost::json::serialize(coding::encode(record, dateStyleOf<typename coding::RecordOf<Record>::type>()));
}

template <class Record>
Record decodeJson(std::string_view text) {
  ParsedJson parsed(text);
  Record record{};
  coding::decode(parsed.value(), record, "$", dateStyleOf<typename coding::RecordOf<Record>::type>());
  return record;
}

}  // namespace quillmark

// Instantiates the coder for a record and for arrays of it.
#define QUILLMARK_RECORD(Record)                                          \
  template std::string quillmark::encodeJson(const Record&);              \
  template Record quillmark::decodeJson(std::string_view);                \
  template std::string quillmark::encodeJson(const std::vector<Record>&); \
  template std::vector<Record> quillmark::decodeJson(std::string_view);
