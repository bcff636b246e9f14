#include "platform/PropertyList.h"

#include <cmath>

namespace quillmark {

std::optional<std::uint64_t> PropertyList::unsignedNumber() const {
  if (const auto* number = std::get_if<std::uint64_t>(&value_)) return *number;
  if (const auto* number = std::get_if<std::int64_t>(&value_)) return static_cast<std::uint64_t>(*number);
  if (const auto* number = std::get_if<double>(&value_)) {
    if (std::isnan(*number) || *number <= -9.3e18 || *number >= 18446744073709551616.0) return 0;
    return *number < 0 ? static_cast<std::uint64_t>(static_cast<std::int64_t>(*number))
                       : static_cast<std::uint64_t>(*number);
  }
  return std::nullopt;
}

const PropertyList* PropertyList::find(std::string_view key) const {
  const PropertyDictionary* entries = dictionary();
  if (!entries) return nullptr;
  const PropertyList* found = nullptr;
  for (const auto& [name, value] : *entries) {
    if (name == key) found = &value;
  }
  return found;
}

}  // namespace quillmark
