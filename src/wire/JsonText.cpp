#include "wire/JsonText.h"

#include <boost/json/basic_parser_impl.hpp>
#include <fmt/format.h>

#include <charconv>
#include <cmath>

#include "wire/Json.h"

namespace quillmark {

namespace json = boost::json;

Error malformedJson(const std::string& where, const std::string& what) {
  return Error("NSCocoaErrorDomain", 4864, fmt::format("The JSON text is malformed: {} {}", where, what));
}

// Everything of one text lives and dies together; past the cap the parse fails instead of the process.
class ParsedJson::CappedMemory final : public json::memory_resource {
 public:
  ~CappedMemory() override = default;

 private:
  void* do_allocate(std::size_t size, std::size_t alignment) override {
    if (size > maxJsonMemory - used_) throw std::bad_alloc();
    used_ += size;
    return upstream_.allocate(size, alignment);
  }
  void do_deallocate(void* block, std::size_t size, std::size_t alignment) override {
    upstream_.deallocate(block, size, alignment);
  }
  bool do_is_equal(const memory_resource& other) const noexcept override { return this == &other; }

  json::monotonic_resource upstream_;
  std::size_t used_ = 0;
};

namespace {

// Builds values as the library's own handler does, but reads every number that is no integer to the nearest double: the
// library's reading may be a unit in the last place off, and a stored date must come back as it went.
class ExactNumbers final {
 public:
  static constexpr std::size_t max_object_size = static_cast<std::size_t>(-1);
  static constexpr std::size_t max_array_size = static_cast<std::size_t>(-1);
  static constexpr std::size_t max_key_size = static_cast<std::size_t>(-1);
  static constexpr std::size_t max_string_size = static_cast<std::size_t>(-1);

  explicit ExactNumbers(const json::storage_ptr& memory) : values_(memory) { values_.reset(memory); }

  [[nodiscard]] json::value release() { return values_.release(); }

  bool on_document_begin(json::error_code&) { return true; }
  bool on_document_end(json::error_code&) { return true; }
  bool on_object_begin(json::error_code&) { return true; }
  bool on_object_end(std::size_t count, json::error_code&) { return values_.push_object(count), true; }
  bool on_array_begin(json::error_code&) { return true; }
  bool on_array_end(std::size_t count, json::error_code&) { return values_.push_array(count), true; }
  bool on_key_part(json::string_view part, std::size_t, json::error_code&) { return values_.push_chars(part), true; }
  bool on_key(json::string_view part, std::size_t, json::error_code&) { return values_.push_key(part), true; }
  bool on_string_part(json::string_view part, std::size_t, json::error_code&) { return values_.push_chars(part), true; }
  bool on_string(json::string_view part, std::size_t, json::error_code&) { return values_.push_string(part), true; }
  bool on_number_part(json::string_view part, json::error_code&) { return number_.append(part), true; }
  bool on_int64(std::int64_t value, json::string_view, json::error_code&) {
    number_.clear();
    return values_.push_int64(value), true;
  }
  bool on_uint64(std::uint64_t value, json::string_view, json::error_code&) {
    number_.clear();
    return values_.push_uint64(value), true;
  }
  bool on_double(double value, json::string_view part, json::error_code&) {
    number_.append(part);
    double exact = 0;
    const auto [end, failure] = std::from_chars(number_.data(), number_.data() + number_.size(), exact);
    number_.clear();
    return values_.push_double(failure == std::errc() ? exact : value), true;
  }
  bool on_bool(bool value, json::error_code&) { return values_.push_bool(value), true; }
  bool on_null(json::error_code&) { return values_.push_null(), true; }
  bool on_comment_part(json::string_view, json::error_code&) { return true; }
  bool on_comment(json::string_view, json::error_code&) { return true; }

 private:
  json::value_stack values_;
  std::string number_;
};

}  // namespace

json::value parseJson(std::string_view text, std::size_t maxDepth, const json::storage_ptr& memory) {
  json::parse_options options;
  options.max_depth = maxDepth;
  json::basic_parser<ExactNumbers> parser(options, memory);
  json::error_code failure;
  const std::size_t taken = parser.write_some(false, text.data(), text.size(), failure);
  if (!failure && taken < text.size()) failure = json::error::extra_data;
  if (failure) throw malformedJson("$", failure.message());
  return parser.handler().release();
}

ParsedJson::ParsedJson(std::string_view text) : memory_(std::make_unique<CappedMemory>()) {
  try {
    value_.emplace(parseJson(text, maxJsonDepth, memory_.get()));
  } catch (const std::bad_alloc&) {
    throw malformedJson("$", "takes too much memory");
  }
  const auto finite = [](const auto& self, const json::value& value) -> bool {
    if (const double* number = value.if_double()) return std::isfinite(*number);
    if (const json::array* array = value.if_array()) {
      return std::all_of(array->begin(), array->end(), [&](const json::value& item) { return self(self, item); });
    }
    if (const json::object* object = value.if_object()) {
      return std::all_of(object->begin(), object->end(), [&](const auto& item) { return self(self, item.value()); });
    }
    return true;
  };
  if (!finite(finite, *value_)) throw malformedJson("$", "holds a number out of range");
}

ParsedJson::~ParsedJson() = default;

namespace {

// Walks well-formed JSON by its brackets and strings only.
class TextWalk {
 public:
  explicit TextWalk(std::string_view text) : text_(text) {}

  [[nodiscard]] char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }
  void skip() { ++at_; }
  void skipBlanks() {
    while (peek() == ' ' || peek() == '\t' || peek() == '\n' || peek() == '\r') ++at_;
  }
  std::string_view value() {
    skipBlanks();
    const std::size_t begin = at_;
    int depth = 0;
    do {
      const char c = peek();
      if (c == '"') {
        string();
        continue;
      }
      if (depth == 0 && c != '{' && c != '[') {
        scalar();
        break;
      }
      if (c == '{' || c == '[') ++depth;
      if (c == '}' || c == ']') --depth;
      ++at_;
    } while (depth > 0 && at_ < text_.size());
    return text_.substr(begin, at_ - begin);
  }

 private:
  void string() {
    for (++at_; at_ < text_.size() && text_[at_] != '"'; ++at_) {
      if (text_[at_] == '\\') ++at_;
    }
    ++at_;
  }
  void scalar() {
    while (at_ < text_.size() && std::string_view(",]} \t\r\n").find(text_[at_]) == std::string_view::npos) ++at_;
  }

  std::string_view text_;
  std::size_t at_ = 0;
};

}  // namespace

std::vector<std::string_view> elementTexts(std::string_view object, std::string_view key) {
  std::string_view array;
  TextWalk members(object);
  members.skipBlanks();
  members.skip();
  for (members.skipBlanks(); members.peek() == '"'; members.skipBlanks()) {
    const std::string_view name = members.value();
    members.skipBlanks();
    members.skip();
    const std::string_view value = members.value();
    json::error_code failure;
    const json::value decoded = json::parse(name, failure);
    if (decoded.is_string() && std::string_view(decoded.get_string()) == key) array = value;
    members.skipBlanks();
    if (members.peek() == ',') members.skip();
  }
  std::vector<std::string_view> texts;
  if (array.empty() || array.front() != '[') return texts;
  TextWalk elements(array);
  elements.skip();
  for (elements.skipBlanks(); elements.peek() != ']' && elements.peek() != '\0'; elements.skipBlanks()) {
    texts.push_back(elements.value());
    elements.skipBlanks();
    if (elements.peek() == ',') elements.skip();
  }
  return texts;
}

}  // namespace quillmark
