#include "wire/DiffResult.h"

#include "wire/JsonText.h"
#include "wire/RecordCoding.h"

namespace quillmark {

template <>
struct CaseNames<DiffResult::ChangeKind> {
  using Kind = DiffResult::ChangeKind;
  static constexpr std::array names{std::pair{Kind::added, "added"}, std::pair{Kind::deleted, "deleted"},
                                    std::pair{Kind::modified, "modified"}, std::pair{Kind::replaced, "replaced"},
                                    std::pair{Kind::moved, "moved"}};
};

template <>
struct CaseNames<DiffResult::EntryType> {
  using Type = DiffResult::EntryType;
  static constexpr std::array names{std::pair{Type::file, "file"}, std::pair{Type::directory, "directory"},
                                    std::pair{Type::symlink, "symlink"}, std::pair{Type::other, "other"}};
};

template <>
struct Description<DiffResult::Row> {
  static void fields(auto& field, auto& row) {
    field("path", row.path);
    field("kind", row.kind);
    field("type", row.type);
    field("oldSize", row.oldSize);
    field("newSize", row.newSize);
    field("oldMTimeNS", row.oldMTimeNS);
    field("newMTimeNS", row.newMTimeNS);
    field("oldPath", row.oldPath);
  }
};

template <>
struct Description<DiffResult::TreeEntry> {
  static void fields(auto& field, auto& entry) {
    field("path", entry.path);
    field("type", entry.type);
    field("size", entry.size);
  }
};

template <>
struct Description<DiffResult> {
  static void fields(auto& field, auto& result) {
    field("volumeUUID", result.volumeUUID);
    field("xidA", result.xidA);
    field("xidB", result.xidB);
    field("rows", result.rows);
    field("treeEntries", result.treeEntries);
    field("truncated", result.truncated);
    field("totalRowCount", result.totalRowCount);
  }
};

std::string_view name(DiffResult::ChangeKind kind) {
  return CaseNames<DiffResult::ChangeKind>::names[static_cast<std::size_t>(kind)].second;
}

std::string_view name(DiffResult::EntryType type) {
  return CaseNames<DiffResult::EntryType>::names[static_cast<std::size_t>(type)].second;
}

}  // namespace quillmark

QUILLMARK_RECORD(quillmark::DiffResult::Row)
QUILLMARK_RECORD(quillmark::DiffResult::TreeEntry)
QUILLMARK_RECORD(quillmark::DiffResult)

namespace quillmark {
namespace {

constexpr std::string_view rowsKey = "rows";
constexpr std::string_view treeEntriesKey = "treeEntries";

template <class Item>
void appendItems(std::string& json, std::string_view key, const std::vector<Item>& items) {
  const std::string empty = '"' + std::string(key) + "\":[]";
  const std::size_t at = json.find(empty) + empty.size() - 1;
  const std::string tail = json.substr(at);
  json.resize(at);
  for (const Item& item : items) {
    if (json.back() != '[') json += ',';
    json += encodeJson(item);
  }
  json += tail;
}

template <class Item>
std::vector<Item> takeItems(std::string& json, std::string_view key) {
  const std::vector<std::string_view> texts = elementTexts(json, key);
  std::vector<Item> items;
  items.reserve(texts.size());
  for (const std::string_view text : texts) items.push_back(decodeJson<Item>(text));
  if (texts.empty()) return items;
  const auto begin = static_cast<std::size_t>(texts.front().data() - json.data());
  const auto end = static_cast<std::size_t>(texts.back().data() + texts.back().size() - json.data());
  json.erase(begin, end - begin);
  return items;
}

}  // namespace

std::string encodeDiffResult(const DiffResult& result) {
  DiffResult frame{result.volumeUUID, result.xidA, result.xidB, {}, {}, result.truncated, result.totalRowCount};
  std::string json = encodeJson(frame);
  appendItems(json, treeEntriesKey, result.treeEntries);
  appendItems(json, rowsKey, result.rows);
  return json;
}

DiffResult decodeDiffResult(std::string_view json) {
  std::string frame(json);
  auto rows = takeItems<DiffResult::Row>(frame, rowsKey);
  auto treeEntries = takeItems<DiffResult::TreeEntry>(frame, treeEntriesKey);
  DiffResult result = decodeJson<DiffResult>(frame);
  result.rows = std::move(rows);
  result.treeEntries = std::move(treeEntries);
  return result;
}

}  // namespace quillmark
