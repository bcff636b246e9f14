// Property lists: the dictionaries, arrays, strings, numbers and booleans that programs of the platform print
// (the XML form of PropertyList-1.0.dtd).
// Threads: plain values; the operations are pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace quillmark {

class PropertyList;
using PropertyArray = std::vector<PropertyList>;
// In the order of the text; a key that comes twice keeps its last value.
using PropertyDictionary = std::vector<std::pair<std::string, PropertyList>>;

class PropertyList {
 public:
  // A number keeps its sign: unsigned ones above the signed range stay whole.
  using Value = std::variant<std::monostate, bool, std::int64_t, std::uint64_t, double, std::string, PropertyArray,
                             PropertyDictionary>;

  PropertyList() = default;
  PropertyList(Value value) : value_(std::move(value)) {}

  [[nodiscard]] const std::string* string() const { return std::get_if<std::string>(&value_); }
  [[nodiscard]] const PropertyArray* array() const { return std::get_if<PropertyArray>(&value_); }
  [[nodiscard]] const PropertyDictionary* dictionary() const { return std::get_if<PropertyDictionary>(&value_); }
  [[nodiscard]] const bool* boolean() const { return std::get_if<bool>(&value_); }
  // The number's 64 bits as unsigned; a real is cut to its whole part; null for what is no number.
  [[nodiscard]] std::optional<std::uint64_t> unsignedNumber() const;
  // The value of a key of a dictionary; null when this is none or lacks it.
  [[nodiscard]] const PropertyList* find(std::string_view key) const;
  [[nodiscard]] const Value& value() const { return value_; }

 private:
  Value value_;
};

class PropertyLists {
 public:
  virtual ~PropertyLists() = default;
  // Throws Error with the reason for text that is no property list. Takes hostile input.
  [[nodiscard]] virtual PropertyList parse(std::string_view text) = 0;
  // The XML form.
  [[nodiscard]] virtual std::string write(const PropertyList& list) = 0;
};

}  // namespace quillmark
