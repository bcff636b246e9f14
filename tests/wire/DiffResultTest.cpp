#include <gtest/gtest.h>
#include <plist/plist.h>

#include <random>

#include "base/Error.h"
#include "wire/DiffResult.h"
#include "wire/Json.h"

namespace quillmark {
namespace {

std::string fileOf(const DiffResult& result) {
  std::string file;
  writeDiffResult(result, [&](std::string_view piece) { file += piece; });
  return file;
}

class Draws {
 public:
  explicit Draws(unsigned seed) : engine_(seed) {}
  std::uint64_t below(std::uint64_t end) { return engine_() % end; }
  std::string path() {
    static const std::array<std::string_view, 9> parts{"/a",        "/Users", "/größe",       "/☃", "/\U0010EFFF",
                                                       "/\x01\x7F", "/x y",   "/é\U0001F600", "/\n"};
    std::string path;
    for (std::uint64_t i = below(30); i-- > 0;) path += parts[below(parts.size())];
    return path.empty() ? "/" : path;
  }
  std::int64_t number() {
    const std::array<std::int64_t, 8> edges{0, -1, 255, 256, 65'536, INT64_MAX, INT64_MIN, std::int64_t{1} << 32};
    return below(2) ? edges[below(edges.size())] : static_cast<std::int64_t>(engine_());
  }
  DiffResult result(std::size_t rows) {
    DiffResult made{.volumeUUID = below(2) ? "local" : path(), .xidA = {engine_()}, .xidB = {below(9)}};
    const auto maybe = [&] { return below(2) ? std::optional(number()) : std::nullopt; };
    for (std::size_t i = 0; i < rows; ++i) {
      made.rows.push_back({path(), static_cast<DiffResult::ChangeKind>(below(5)),
                           static_cast<DiffResult::EntryType>(below(4)), maybe(), maybe(), maybe(), maybe(),
                           below(3) ? std::nullopt : std::optional(path())});
      if (below(2)) made.treeEntries.push_back({path(), static_cast<DiffResult::EntryType>(below(4)), number()});
    }
    made.truncated = below(2);
    made.totalRowCount = number();
    return made;
  }

 private:
  std::mt19937_64 engine_;
};

// What the property-list library makes of the file.
std::string textOf(plist_t node) {
  std::uint64_t length = 0;
  const char* const text = plist_get_string_ptr(node, &length);
  return text == nullptr ? std::string() : std::string(text, length);
}
std::optional<std::int64_t> numberOf(plist_t node) {
  if (node == nullptr) return std::nullopt;
  std::uint64_t value = 0;
  plist_get_uint_val(node, &value);
  return static_cast<std::int64_t>(value);
}

TEST(DiffResultFile, comesBackAsItWasFromUsAndFromTheLibrary) {
  for (unsigned seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE(seed);
    Draws draws(seed);
    const DiffResult result = draws.result(seed < 38 ? draws.below(40) : 20'000);  // references of 1, 2 and 4 bytes
    const std::string file = fileOf(result);
    EXPECT_EQ(readDiffResult(file), result);

    plist_t list = nullptr;
    plist_from_bin(file.data(), static_cast<std::uint32_t>(file.size()), &list);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(textOf(plist_dict_get_item(list, "volumeUUID")), result.volumeUUID);
    EXPECT_EQ(numberOf(plist_dict_get_item(list, "xidA")), static_cast<std::int64_t>(result.xidA.value));
    EXPECT_EQ(numberOf(plist_dict_get_item(list, "totalRowCount")), result.totalRowCount);
    const plist_t rows = plist_dict_get_item(list, "rows");
    ASSERT_EQ(plist_array_get_size(rows), result.rows.size());
    for (std::uint32_t i = 0; i < result.rows.size(); i += seed < 38 ? 1 : 997) {
      const plist_t row = plist_array_get_item(rows, i);
      const DiffResult::Row& told = result.rows[i];
      EXPECT_EQ(textOf(plist_dict_get_item(row, "path")), told.path);
      EXPECT_EQ(textOf(plist_dict_get_item(row, "kind")), name(told.kind));
      EXPECT_EQ(textOf(plist_dict_get_item(row, "type")), name(told.type));
      EXPECT_EQ(numberOf(plist_dict_get_item(row, "oldSize")), told.oldSize);
      EXPECT_EQ(numberOf(plist_dict_get_item(row, "newMTimeNS")), told.newMTimeNS);
      EXPECT_EQ(plist_dict_get_item(row, "oldPath") != nullptr, told.oldPath.has_value());
    }
    EXPECT_EQ(plist_array_get_size(plist_dict_get_item(list, "treeEntries")), result.treeEntries.size());
    plist_free(list);
  }
}

TEST(DiffResultJson, leavesOutWhatIsAbsent) {
  DiffResult result{.volumeUUID = "local"};
  result.rows.push_back({.path = "/b",
                         .kind = DiffResult::ChangeKind::moved,
                         .type = DiffResult::EntryType::symlink,
                         .newSize = 3,
                         .oldPath = "/a"});
  EXPECT_EQ(encodeJson(result),
            R"({"volumeUUID":"local","xidA":0,"xidB":0,"rows":[{"path":"/b","kind":"moved","type":"symlink",)"
            R"("newSize":3,"oldPath":"/a"}],"treeEntries":[],"truncated":false,"totalRowCount":0})");
  EXPECT_EQ(decodeJson<DiffResult>(encodeJson(result)), result);
}

}  // namespace
}  // namespace quillmark
