// Parsing of JSON text within bounds: depth, memory, no non-finite numbers. Heavy: for .cpp files of wire/ and of records.
#pragma once

#include <boost/json.hpp>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Error.h"

namespace quillmark {

// "The JSON text is malformed: $.xid is no whole number in range" in the domain of decoding errors.
[[nodiscard]] Error malformedJson(const std::string& where, const std::string& what);

// Reads numbers to the nearest double, which the library's own parser doesn't: what was encoded decodes to the same
// record. Throws Error for what is malformed or too deep.
[[nodiscard]] boost::json::value parseJson(std::string_view text, std::size_t maxDepth,
                                           const boost::json::storage_ptr& memory = {});

// A parsed text with the memory it lives in.
class ParsedJson final {
 public:
  // Throws Error for what is malformed, too deep or too large.
  explicit ParsedJson(std::string_view text);
  ~ParsedJson();
  ParsedJson(const ParsedJson&) = delete;
  ParsedJson& operator=(const ParsedJson&) = delete;
  [[nodiscard]] const boost::json::value& value() const { return *value_; }

 private:
  class CappedMemory;
  std::unique_ptr<CappedMemory> memory_;
  std::optional<boost::json::value> value_;
};

// The texts of the elements of the array under `key` of an object, in place within `object`; needs well-formed JSON.
// Where the key comes twice the last one counts, as for the parser.
[[nodiscard]] std::vector<std::string_view> elementTexts(std::string_view object, std::string_view key);

}  // namespace quillmark
