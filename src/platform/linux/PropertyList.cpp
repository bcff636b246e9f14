#include "platform/linux/PropertyList.h"

#include <plist/plist.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <memory>
#include <unordered_map>

#include "base/Error.h"
#include "base/Text.h"

namespace quillmark::os {
namespace {

constexpr std::size_t sizeLimit = 16 * 1024 * 1024;
constexpr int depthLimit = 64;
constexpr std::uint64_t largestSigned = std::numeric_limits<std::int64_t>::max();

struct FreeNode {
  void operator()(void* node) const { ::plist_free(node); }
};
using Node = std::unique_ptr<void, FreeNode>;

struct FreeMemory {
  void operator()(void* memory) const { std::free(memory); }
};
template <class Type>
using Memory = std::unique_ptr<Type, FreeMemory>;

[[noreturn]] void refuse(const char* why) { throw Error("Quillmark.PropertyList", 1, why); }

// The library frees and copies trees by recursion, so that a deep one would run out of stack: depth is counted first.
class DepthCheck final {
 public:
  explicit DepthCheck(std::string_view text) : text_(text) {}

  void run() {
    for (std::size_t at = text_.find('<'); at != text_.npos; at = text_.find('<', at)) at = step(at);
  }

 private:
  // Past the markup that begins here.
  std::size_t step(std::size_t at) {
    const std::string_view rest = text_.substr(at);
    if (rest.starts_with("<!--")) return skip(at + 4, "-->");
    if (rest.starts_with("<![CDATA[")) return skip(at + 9, "]]>");
    const std::size_t end = text_.find('>', at);
    if (end == text_.npos) refuse("The property list ends within a tag.");
    if (rest.starts_with("<!") || rest.starts_with("<?")) return end + 1;
    if (rest.starts_with("</")) {
      --depth_;
    } else if (text_[end - 1] != '/' && ++depth_ > depthLimit) {
      refuse("The property list is nested too deeply.");
    }
    return end + 1;
  }

  // Where two readers could see other ends of a section, a tag within it would be counted by one of them only.
  std::size_t skip(std::size_t from, std::string_view closing) {
    const std::size_t end = text_.find(closing, from);
    if (end == text_.npos) refuse("The property list ends within a comment.");
    if (text_.substr(from, end - from).find_first_of("<>") != text_.npos)
      refuse("The property list has a tag in a comment.");
    return end + closing.size();
  }

  std::string_view text_;
  int depth_ = 0;
};

std::string xmlOf(plist_t node) {
  char* text = nullptr;
  std::uint32_t length = 0;
  ::plist_to_xml(node, &text, &length);
  const Memory<char> owned(text);
  return text ? std::string(text, length) : std::string();
}

// The library gives a negative number and an unsigned one above the signed range as the same 64 bits; its text differs.
PropertyList::Value numberOf(plist_t node) {
  std::uint64_t bits = 0;
  ::plist_get_uint_val(node, &bits);
  if (bits <= largestSigned) return static_cast<std::int64_t>(bits);
  if (xmlOf(node).find("<integer>-") != std::string::npos) return static_cast<std::int64_t>(bits);
  return bits;
}

PropertyList valueOf(plist_t node);

PropertyList::Value dictionaryOf(plist_t node) {
  PropertyDictionary entries;
  std::unordered_map<std::string, std::size_t> places;
  plist_dict_iter iterator = nullptr;
  ::plist_dict_new_iter(node, &iterator);
  const Memory<void> owned(iterator);
  for (;;) {
    char* key = nullptr;
    plist_t value = nullptr;
    ::plist_dict_next_item(node, iterator, &key, &value);
    const Memory<char> ownedKey(key);
    if (!key || !value) return entries;
    const auto [place, isNew] = places.emplace(key, entries.size());
    if (isNew) {
      entries.emplace_back(key, valueOf(value));
    } else {
      entries[place->second].second = valueOf(value);
    }
  }
}

PropertyList::Value arrayOf(plist_t node) {
  PropertyArray items;
  plist_array_iter iterator = nullptr;
  ::plist_array_new_iter(node, &iterator);
  const Memory<void> owned(iterator);
  for (;;) {
    plist_t item = nullptr;
    ::plist_array_next_item(node, iterator, &item);
    if (!item) return items;
    items.push_back(valueOf(item));
  }
}

PropertyList valueOf(plist_t node) {
  std::uint8_t truth = 0;
  double real = 0;
  std::uint64_t length = 0;
  switch (::plist_get_node_type(node)) {
    case PLIST_BOOLEAN: ::plist_get_bool_val(node, &truth); return PropertyList::Value(truth != 0);
    case PLIST_UINT: return numberOf(node);
    case PLIST_REAL: ::plist_get_real_val(node, &real); return PropertyList::Value(real);
    case PLIST_STRING: {
      const char* text = ::plist_get_string_ptr(node, &length);
      return PropertyList::Value(repairUtf8({text ? text : "", text ? length : 0}));
    }
    case PLIST_ARRAY: return arrayOf(node);
    case PLIST_DICT: return dictionaryOf(node);
    default: return {};
  }
}

Node parsed(std::string_view text) {
  plist_t root = nullptr;
  ::plist_from_xml(text.data(), static_cast<std::uint32_t>(text.size()), &root);
  return Node(root);
}

plist_t nodeOf(const PropertyList& list);

struct MakeNode {
  plist_t operator()(std::monostate) const { return ::plist_new_string(""); }
  plist_t operator()(bool value) const { return ::plist_new_bool(value); }
  plist_t operator()(std::int64_t value) const { return ::plist_new_uint(static_cast<std::uint64_t>(value)); }
  plist_t operator()(std::uint64_t value) const {
    if (value <= largestSigned) return ::plist_new_uint(value);
    // From a number the library would make a negative one; from text it keeps the sign.
    return parsed("<plist version=\"1.0\"><integer>" + std::to_string(value) + "</integer></plist>").release();
  }
  plist_t operator()(double value) const { return ::plist_new_real(value); }
  plist_t operator()(const std::string& value) const { return ::plist_new_string(value.c_str()); }
  plist_t operator()(const PropertyArray& items) const {
    plist_t array = ::plist_new_array();
    for (const PropertyList& item : items) ::plist_array_append_item(array, nodeOf(item));
    return array;
  }
  plist_t operator()(const PropertyDictionary& entries) const {
    plist_t dictionary = ::plist_new_dict();
    for (const auto& [key, value] : entries) ::plist_dict_set_item(dictionary, key.c_str(), nodeOf(value));
    return dictionary;
  }
};

plist_t nodeOf(const PropertyList& list) { return std::visit(MakeNode{}, list.value()); }

}  // namespace

PropertyList LinuxPropertyLists::parse(std::string_view text) {
  if (text.size() > sizeLimit) refuse("The property list is too large.");
  DepthCheck(text).run();
  const Node root = parsed(text);
  if (!root) refuse("The text is no property list.");
  return valueOf(root.get());
}

std::string LinuxPropertyLists::write(const PropertyList& list) { return xmlOf(Node(nodeOf(list)).get()); }

}  // namespace quillmark::os
