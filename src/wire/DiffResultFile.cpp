// The file form of a DiffResult. The objects of a binary property list are numbered in the order of writing, and how many
// there will be decides how wide a number is: so they are counted first, and nothing is kept but their places in the file.
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <span>

#include "base/Error.h"
#include "base/Text.h"
#include "wire/DiffResult.h"

namespace quillmark {
namespace {

using Kind = DiffResult::ChangeKind;
using Type = DiffResult::EntryType;

constexpr std::size_t kinds = 5, types = 4;
enum Marker : std::uint8_t {
  falseMarker = 0x08,
  trueMarker = 0x09,
  intMarker = 0x10,
  asciiMarker = 0x50,
  utf16Marker = 0x60,
  arrayMarker = 0xA0,
  dictionaryMarker = 0xD0,
};

// Every key once, in the order of their objects' numbers.
enum Key : std::size_t {
  volumeUUIDKey,
  xidAKey,
  xidBKey,
  rowsKey,
  treeEntriesKey,
  truncatedKey,
  totalRowCountKey,
  pathKey,
  kindKey,
  typeKey,
  oldSizeKey,
  newSizeKey,
  oldMTimeNSKey,
  newMTimeNSKey,
  oldPathKey,
  sizeKey,
  keyCount
};
constexpr std::array<std::string_view, keyCount> keyNames{
    "volumeUUID", "xidA", "xidB",    "rows",    "treeEntries", "truncated",  "totalRowCount", "path",
    "kind",       "type", "oldSize", "newSize", "oldMTimeNS",  "newMTimeNS", "oldPath",       "size"};

// What every file begins with, by number: the dictionary of all, its keys, the words, then what only this one holds.
constexpr std::size_t firstKey = 1;
constexpr std::size_t firstKind = firstKey + keyCount;
constexpr std::size_t firstType = firstKind + kinds;
constexpr std::size_t volumeUUIDObject = firstType + types;
constexpr std::size_t xidAObject = volumeUUIDObject + 1;
constexpr std::size_t xidBObject = xidAObject + 1;
constexpr std::size_t truncatedObject = xidBObject + 1;
constexpr std::size_t totalObject = truncatedObject + 1;
constexpr std::size_t rowsObject = totalObject + 1;
constexpr std::size_t treeEntriesObject = rowsObject + 1;
constexpr std::size_t firstRow = treeEntriesObject + 1;

std::size_t objectsOf(const DiffResult::Row& row) {
  return 2 + row.oldSize.has_value() + row.newSize.has_value() + row.oldMTimeNS.has_value() +
         row.newMTimeNS.has_value() + row.oldPath.has_value();
}
constexpr std::size_t objectsOfTreeEntry = 3;

unsigned bytesFor(std::uint64_t number) { return number < 1u << 8 ? 1 : number < 1u << 16 ? 2 : number >> 32 ? 8 : 4; }

class Writer final {
 public:
  Writer(const DiffResult& result, FunctionRef<void(std::string_view)> sink) : result_(result), sink_(sink) {
    std::size_t count = firstRow;
    for (const DiffResult::Row& row : result.rows) count += objectsOf(row);
    count += result.treeEntries.size() * objectsOfTreeEntry;
    places_.reserve(count);
    referenceBytes_ = bytesFor(count);
    buffer_.reserve(bufferSize + 8192);
  }

  void write() {
    buffer_ += "bplist00";
    dictionary({{volumeUUIDKey, volumeUUIDObject},
                {xidAKey, xidAObject},
                {xidBKey, xidBObject},
                {rowsKey, rowsObject},
                {treeEntriesKey, treeEntriesObject},
                {truncatedKey, truncatedObject},
                {totalRowCountKey, totalObject}});
    for (const std::string_view key : keyNames) string(key);
    for (std::size_t kind = 0; kind < kinds; ++kind) string(name(static_cast<Kind>(kind)));
    for (std::size_t type = 0; type < types; ++type) string(name(static_cast<Type>(type)));
    string(result_.volumeUUID);
    unsignedNumber(result_.xidA.value);
    unsignedNumber(result_.xidB.value);
    boolean(result_.truncated);
    number(result_.totalRowCount);
    lists();
    for (const DiffResult::Row& row : result_.rows) this->row(row);
    for (const DiffResult::TreeEntry& entry : result_.treeEntries) treeEntry(entry);
    end();
  }

 private:
  static constexpr std::size_t bufferSize = 65'536;
  struct Member {
    Key key;
    std::size_t object;
  };

  void flush(std::size_t atLeast) {
    if (buffer_.size() < atLeast) return;
    sink_(buffer_);
    flushed_ += buffer_.size();
    buffer_.clear();
  }
  void begin() {
    flush(bufferSize);
    places_.push_back(flushed_ + buffer_.size());
  }
  void bigEndian(std::uint64_t number, unsigned bytes) {
    for (unsigned byte = bytes; byte-- > 0;) buffer_.push_back(static_cast<char>(number >> (8 * byte)));
  }
  void reference(std::size_t object) { bigEndian(object, referenceBytes_); }
  void markerWithCount(Marker marker, std::size_t count) {
    buffer_.push_back(static_cast<char>(marker | (count < 15 ? count : 15)));
    if (count < 15) return;
    const unsigned bytes = bytesFor(count);
    buffer_.push_back(static_cast<char>(intMarker | std::countr_zero(bytes)));
    bigEndian(count, bytes);
  }

  void string(std::string_view text) {
    begin();
    if (std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
      markerWithCount(asciiMarker, text.size());
      buffer_ += text;
      return;
    }
    units_.clear();
    for (std::size_t at = 0; at < text.size();) {
      const char32_t scalar = nextScalar(text, at);
      if (scalar < 0x10000) {
        units_.push_back(static_cast<char16_t>(scalar));
      } else {
        units_.push_back(static_cast<char16_t>(0xD7C0 + (scalar >> 10)));
        units_.push_back(static_cast<char16_t>(0xDC00 + (scalar & 0x3FF)));
      }
    }
    markerWithCount(utf16Marker, units_.size());
    for (const char16_t unit : units_) bigEndian(unit, 2);
  }
  // The text is well formed.
  static char32_t nextScalar(std::string_view text, std::size_t& at) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(i < text.size() ? text[i] : 0); };
    const unsigned char first = byte(at);
    if (first < 0x80) return at += 1, first;
    const unsigned length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    char32_t scalar = first & (0x7F >> length);
    for (unsigned i = 1; i < length; ++i) scalar = scalar << 6 | (byte(at + i) & 0x3F);
    at += length;
    return scalar;
  }
  void number(std::int64_t value) {
    begin();
    const bool isShort = value >= 0 && value < std::int64_t{1} << 32;  // eight bytes are the first with a sign
    const unsigned bytes = isShort ? bytesFor(static_cast<std::uint64_t>(value)) : 8;
    buffer_.push_back(static_cast<char>(intMarker | std::countr_zero(bytes)));
    bigEndian(static_cast<std::uint64_t>(value), bytes);
  }
  // Past the signed range a number takes sixteen bytes.
  void unsignedNumber(std::uint64_t value) {
    if (value <= static_cast<std::uint64_t>(INT64_MAX)) return number(static_cast<std::int64_t>(value));
    begin();
    buffer_.push_back(static_cast<char>(intMarker | 4));
    bigEndian(0, 8);
    bigEndian(value, 8);
  }
  void boolean(bool value) {
    begin();
    buffer_.push_back(static_cast<char>(value ? trueMarker : falseMarker));
  }
  void dictionary(std::span<const Member> members) {
    begin();
    markerWithCount(dictionaryMarker, members.size());
    for (const Member& member : members) reference(firstKey + member.key);
    for (const Member& member : members) reference(member.object);
  }
  void dictionary(std::initializer_list<Member> members) { dictionary(std::span(members.begin(), members.size())); }

  // Rows and entries follow in order, each with what it holds right behind it.
  void lists() {
    std::size_t next = firstRow;
    begin();
    markerWithCount(arrayMarker, result_.rows.size());
    for (const DiffResult::Row& row : result_.rows) {
      reference(next);
      next += objectsOf(row);
      flush(bufferSize);
    }
    begin();
    markerWithCount(arrayMarker, result_.treeEntries.size());
    for (std::size_t i = 0; i < result_.treeEntries.size(); ++i, next += objectsOfTreeEntry) {
      reference(next);
      flush(bufferSize);
    }
  }

  void row(const DiffResult::Row& row) {
    std::size_t next = places_.size() + 1;
    std::array<Member, 8> members;
    std::size_t count = 0;
    const auto add = [&](Key key, std::size_t object) { members[count++] = {key, object}; };
    add(pathKey, next++);
    add(kindKey, firstKind + static_cast<std::size_t>(row.kind));
    add(typeKey, firstType + static_cast<std::size_t>(row.type));
    const std::array numbers{std::pair{oldSizeKey, &row.oldSize}, std::pair{newSizeKey, &row.newSize},
                             std::pair{oldMTimeNSKey, &row.oldMTimeNS}, std::pair{newMTimeNSKey, &row.newMTimeNS}};
    for (const auto& [key, value] : numbers) {
      if (*value) add(key, next++);
    }
    if (row.oldPath) add(oldPathKey, next++);
    dictionary(std::span<const Member>(members.data(), count));
    string(row.path);
    for (const auto& [key, value] : numbers) {
      if (*value) number(**value);
    }
    if (row.oldPath) string(*row.oldPath);
  }

  void treeEntry(const DiffResult::TreeEntry& entry) {
    const std::size_t next = places_.size() + 1;
    dictionary({{pathKey, next}, {typeKey, firstType + static_cast<std::size_t>(entry.type)}, {sizeKey, next + 1}});
    string(entry.path);
    number(entry.size);
  }

  void end() {
    const std::uint64_t table = flushed_ + buffer_.size();
    const unsigned offsetBytes = bytesFor(table);
    for (const std::uint64_t place : places_) {
      bigEndian(place, offsetBytes);
      flush(bufferSize);
    }
    bigEndian(0, 6);
    bigEndian(offsetBytes, 1);
    bigEndian(referenceBytes_, 1);
    bigEndian(places_.size(), 8);
    bigEndian(0, 8);  // the number of the object that holds all others
    bigEndian(table, 8);
    flush(0);
  }

  const DiffResult& result_;
  const FunctionRef<void(std::string_view)> sink_;
  std::string buffer_;
  std::uint64_t flushed_ = 0;
  std::vector<std::uint64_t> places_;
  unsigned referenceBytes_ = 1;
  std::u16string units_;
};

Error malformed(const char* what) {
  return Error(std::string(posixErrorDomain), EINVAL, std::string("The comparison file is damaged: ") + what + ".");
}

class Reader final {
 public:
  explicit Reader(std::string_view file) : file_(file) {
    constexpr std::size_t header = 8, trailer = 32;
    if (file.size() < header + trailer || !file.starts_with("bplist0")) throw malformed("it is no property list");
    const std::size_t end = file.size() - trailer;
    offsetBytes_ = static_cast<unsigned>(bigEndian(end + 6, 1));
    referenceBytes_ = static_cast<unsigned>(bigEndian(end + 7, 1));
    count_ = bigEndian(end + 8, 8);
    top_ = bigEndian(end + 16, 8);
    table_ = bigEndian(end + 24, 8);
    const auto isWidth = [](unsigned bytes) { return bytes >= 1 && bytes <= 8; };
    if (!isWidth(offsetBytes_) || !isWidth(referenceBytes_) || table_ < header || table_ > end ||
        count_ > (end - table_) / offsetBytes_) {
      throw malformed("its table doesn't fit");
    }
    objectsEnd_ = table_;
    budget_ = 4 * file.size();
  }

  DiffResult read() {
    DiffResult result;
    const Dictionary top = dictionary(top_);
    result.volumeUUID = required(top, volumeUUIDKey, &Reader::string);
    result.xidA.value = required(top, xidAKey, &Reader::unsignedNumber);
    result.xidB.value = required(top, xidBKey, &Reader::unsignedNumber);
    result.truncated = required(top, truncatedKey, &Reader::boolean);
    result.totalRowCount = required(top, totalRowCountKey, &Reader::number);
    const Array rows = required(top, rowsKey, &Reader::array);
    result.rows.reserve(rows.count);
    for (std::size_t i = 0; i < rows.count; ++i) result.rows.push_back(row(dictionary(member(rows, i))));
    const Array entries = required(top, treeEntriesKey, &Reader::array);
    result.treeEntries.reserve(entries.count);
    for (std::size_t i = 0; i < entries.count; ++i) {
      result.treeEntries.push_back(treeEntry(dictionary(member(entries, i))));
    }
    return result;
  }

 private:
  // References from a place on.
  struct Array {
    std::uint64_t place = 0;
    std::size_t count = 0;
  };
  using Dictionary = std::array<std::optional<std::uint64_t>, keyCount>;  // number of the value's object

  [[nodiscard]] std::uint64_t bigEndian(std::uint64_t place, unsigned bytes) const {
    if (place > file_.size() || bytes > file_.size() - place) throw malformed("it ends too early");
    std::uint64_t number = 0;
    for (unsigned i = 0; i < bytes; ++i) number = number << 8 | static_cast<unsigned char>(file_[place + i]);
    return number;
  }
  [[nodiscard]] std::uint64_t placeOf(std::uint64_t object) const {
    if (object >= count_) throw malformed("it refers to what isn't there");
    const std::uint64_t place = bigEndian(table_ + object * offsetBytes_, offsetBytes_);
    if (place >= objectsEnd_) throw malformed("an object lies outside");
    return place;
  }
  // Of a string, an array or a dictionary whose members take so many bytes each; moves the place behind the count.
  [[nodiscard]] std::size_t countAt(std::uint64_t& place, unsigned memberBytes) const {
    std::uint64_t count = bigEndian(place++, 1) & 0x0F;
    if (count == 15) {
      const std::uint64_t marker = bigEndian(place, 1);
      if ((marker & 0xF0) != intMarker || (marker & 0x0F) > 3) throw malformed("a count is no number");
      const unsigned bytes = 1u << (marker & 0x0F);
      count = bigEndian(place + 1, bytes);
      place += 1 + bytes;
    }
    if (place > objectsEnd_ || count > (objectsEnd_ - place) / memberBytes) throw malformed("an object is cut off");
    return static_cast<std::size_t>(count);
  }
  [[nodiscard]] std::uint8_t markerOf(std::uint64_t place) const {
    return static_cast<std::uint8_t>(bigEndian(place, 1) & 0xF0);
  }

  // Objects may be shared: without a bound a small file could hold the same long text a million times.
  void spend(std::size_t bytes) const {
    if (bytes > budget_) throw malformed("it holds more than its size allows");
    budget_ -= bytes;
  }
  [[nodiscard]] std::string string(std::uint64_t object) const {
    std::uint64_t place = placeOf(object);
    const std::uint8_t marker = markerOf(place);
    if (marker == asciiMarker) {
      const std::size_t count = countAt(place, 1);
      spend(count);
      const std::string_view text = file_.substr(place, count);
      if (!isValidUtf8(text)) throw malformed("a text isn't ASCII");
      return std::string(text);
    }
    if (marker != utf16Marker) throw malformed("a text is missing");
    const std::size_t count = countAt(place, 2);
    spend(2 * count);
    std::string text;
    for (std::size_t i = 0; i < count; ++i) {
      char32_t scalar = static_cast<char32_t>(bigEndian(place + 2 * i, 2));
      if (scalar >= 0xD800 && scalar < 0xE000) {
        const char32_t low = ++i < count ? static_cast<char32_t>(bigEndian(place + 2 * i, 2)) : 0;
        if (scalar >= 0xDC00 || low < 0xDC00 || low >= 0xE000) throw malformed("a text is cut off within a letter");
        scalar = 0x10000 + ((scalar - 0xD800) << 10) + (low - 0xDC00);
      }
      appendScalar(text, scalar);
    }
    return text;
  }
  static void appendScalar(std::string& text, char32_t scalar) {
    const auto add = [&](char32_t byte) { text.push_back(static_cast<char>(byte)); };
    if (scalar < 0x80) return add(scalar);
    if (scalar < 0x800) {
      add(0xC0 | scalar >> 6);
    } else {
      if (scalar < 0x10000) {
        add(0xE0 | scalar >> 12);
      } else {
        add(0xF0 | scalar >> 18);
        add(0x80 | (scalar >> 12 & 0x3F));
      }
      add(0x80 | (scalar >> 6 & 0x3F));
    }
    add(0x80 | (scalar & 0x3F));
  }
  [[nodiscard]] std::uint64_t unsignedNumber(std::uint64_t object) const {
    const std::uint64_t place = placeOf(object);
    const std::uint64_t marker = bigEndian(place, 1);
    if ((marker & 0xF0) != intMarker || (marker & 0x0F) > 4) throw malformed("a number is missing");
    if (marker == (intMarker | 4)) return bigEndian(place + 9, 8);
    return bigEndian(place + 1, 1u << (marker & 0x0F));
  }
  [[nodiscard]] std::int64_t number(std::uint64_t object) const {
    return static_cast<std::int64_t>(unsignedNumber(object));
  }
  [[nodiscard]] bool boolean(std::uint64_t object) const {
    const std::uint64_t marker = bigEndian(placeOf(object), 1);
    if (marker != trueMarker && marker != falseMarker) throw malformed("a truth value is missing");
    return marker == trueMarker;
  }
  [[nodiscard]] Array array(std::uint64_t object) const {
    std::uint64_t place = placeOf(object);
    if (markerOf(place) != arrayMarker) throw malformed("a list is missing");
    const std::size_t count = countAt(place, referenceBytes_);
    return {place, count};
  }
  [[nodiscard]] std::uint64_t member(const Array& array, std::size_t index) const {
    return bigEndian(array.place + index * referenceBytes_, referenceBytes_);
  }
  [[nodiscard]] Dictionary dictionary(std::uint64_t object) {
    std::uint64_t place = placeOf(object);
    if (markerOf(place) != dictionaryMarker) throw malformed("a dictionary is missing");
    const std::size_t count = countAt(place, 2 * referenceBytes_);
    Dictionary found;
    for (std::size_t i = 0; i < count; ++i) {
      const std::size_t key = keyOf(bigEndian(place + i * referenceBytes_, referenceBytes_));
      if (key < keyCount) found[key] = bigEndian(place + (count + i) * referenceBytes_, referenceBytes_);
    }
    return found;
  }
  // keyCount for one that means nothing here. All rows share the objects of their keys: those found are kept.
  [[nodiscard]] std::size_t keyOf(std::uint64_t object) {
    for (const auto& [known, key] : keys_) {
      if (known == object) return key;
    }
    const std::string text = string(object);
    const auto found = std::find(keyNames.begin(), keyNames.end(), text);
    const std::size_t key = static_cast<std::size_t>(found - keyNames.begin());
    if (keys_.size() < 2 * keyCount) keys_.emplace_back(object, key);
    return key;
  }

  template <class Value>
  [[nodiscard]] Value required(const Dictionary& dictionary, Key key,
                               Value (Reader::*reading)(std::uint64_t) const) const {
    if (!dictionary[key]) throw malformed("a key is missing");
    return (this->*reading)(*dictionary[key]);
  }
  template <class Value>
  void optional(const Dictionary& dictionary, Key key, std::optional<Value>& into,
                Value (Reader::*reading)(std::uint64_t) const) const {
    if (dictionary[key]) into = (this->*reading)(*dictionary[key]);
  }
  template <class Case>
  [[nodiscard]] Case word(const Dictionary& dictionary, Key key, std::size_t cases) const {
    const std::string text = required(dictionary, key, &Reader::string);
    for (std::size_t i = 0; i < cases; ++i) {
      if (name(static_cast<Case>(i)) == text) return static_cast<Case>(i);
    }
    throw malformed("a word has no meaning");
  }

  [[nodiscard]] DiffResult::Row row(const Dictionary& from) const {
    DiffResult::Row row;
    row.path = required(from, pathKey, &Reader::string);
    row.kind = word<Kind>(from, kindKey, kinds);
    row.type = word<Type>(from, typeKey, types);
    optional(from, oldSizeKey, row.oldSize, &Reader::number);
    optional(from, newSizeKey, row.newSize, &Reader::number);
    optional(from, oldMTimeNSKey, row.oldMTimeNS, &Reader::number);
    optional(from, newMTimeNSKey, row.newMTimeNS, &Reader::number);
    optional(from, oldPathKey, row.oldPath, &Reader::string);
    return row;
  }
  [[nodiscard]] DiffResult::TreeEntry treeEntry(const Dictionary& from) const {
    return {required(from, pathKey, &Reader::string), word<Type>(from, typeKey, types),
            required(from, sizeKey, &Reader::number)};
  }

  const std::string_view file_;
  unsigned offsetBytes_ = 0;
  unsigned referenceBytes_ = 0;
  std::uint64_t count_ = 0;
  std::uint64_t top_ = 0;
  std::uint64_t table_ = 0;
  std::uint64_t objectsEnd_ = 0;
  mutable std::size_t budget_ = 0;
  std::vector<std::pair<std::uint64_t, std::size_t>> keys_;
};

}  // namespace

void writeDiffResult(const DiffResult& result, FunctionRef<void(std::string_view)> sink) {
  Writer(result, sink).write();
}

DiffResult readDiffResult(std::string_view file) { return Reader(file).read(); }

}  // namespace quillmark
