#include "quill/DiffText.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <unordered_map>

#include "platform/NameText.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/Table.h"
#include "quill/TerminalText.h"

namespace quillmark::cli {
namespace {

using Kind = DiffResult::ChangeKind;
using Row = DiffResult::Row;

constexpr std::array kinds{Kind::added, Kind::deleted, Kind::modified, Kind::replaced, Kind::moved};
constexpr std::size_t pieceSize = std::size_t{64} << 10;

struct Sign {
  const char* text;
  Tone tone;
};
Sign signOf(Kind kind) {
  switch (kind) {
    case Kind::added: return {"+", Tone::good};
    case Kind::deleted: return {"-", Tone::bad};
    case Kind::modified: return {"~", Tone::doubtful};
    case Kind::replaced: return {"↻", Tone::doubtful};
    case Kind::moved: return {">", Tone::plain};
  }
  return {" ", Tone::plain};
}

std::string signedSize(std::int64_t bytes) {
  return (bytes < 0 ? "-" : "+") + shownSize(static_cast<std::uint64_t>(std::llabs(bytes)));
}

std::string shownPath(const std::string& path, DiffResult::EntryType type) {
  std::string text = shownText(path);
  if (type == DiffResult::EntryType::directory && text != "/") text += '/';
  return text;
}

// Of what has a size that says something: files.
std::string sizesOf(const Row& row) {
  if (row.type != DiffResult::EntryType::file) return {};
  const auto shown = [](std::int64_t bytes) {
    return shownSize(static_cast<std::uint64_t>(std::max<std::int64_t>(bytes, 0)));
  };
  if (row.oldSize && row.newSize && *row.oldSize != *row.newSize) {
    return fmt::format("  ({} → {})", shown(*row.oldSize), shown(*row.newSize));
  }
  const auto size = row.newSize ? row.newSize : row.oldSize;
  return size ? fmt::format("  ({})", shown(*size)) : "";
}

// A sign, blanks and a path, with sizes behind it.
std::string terminalLine(const Row& row, bool color) {
  const Sign sign = signOf(row.kind);
  std::string line = fmt::format("{} {}", sign.text, shownPath(row.path, row.type));
  if (row.oldPath) line = fmt::format("{} {} → {}", sign.text, shownText(*row.oldPath), shownPath(row.path, row.type));
  return toned(line, sign.tone, color) + sizesOf(row) + "\n";
}

std::string number(const std::optional<std::int64_t>& value) { return value ? std::to_string(*value) : "-"; }

std::string plainLine(const Row& row) {
  return fmt::format("{} {} {} {} {} {} {} {}\n", name(row.kind), name(row.type), plainWord(row.path),
                     plainWord(row.oldPath.value_or("")), number(row.oldSize), number(row.newSize),
                     number(row.oldMTimeNS), number(row.newMTimeNS));
}

std::string nameLine(const Row& row, bool forTerminal) {
  return (forTerminal ? shownText(row.path) : plainWord(row.path)) + "\n";
}

// What stands in the tree and didn't change.
std::string unchangedLine(const DiffResult::TreeEntry& entry, bool forTerminal) {
  if (forTerminal) return "  " + shownPath(entry.path, entry.type) + "\n";
  return fmt::format("same {} {} - {} {} - -\n", name(entry.type), plainWord(entry.path), entry.size, entry.size);
}

struct Sum {
  std::size_t count = 0;
  std::int64_t bytes = 0;
};
using Sums = std::array<Sum, kinds.size()>;

Sums sumsOf(const DiffResult& result) {
  Sums sums;
  for (const Row& row : result.rows) {
    Sum& sum = sums[static_cast<std::size_t>(row.kind)];
    ++sum.count;
    if (row.type == DiffResult::EntryType::file) sum.bytes += row.newSize.value_or(0) - row.oldSize.value_or(0);
  }
  return sums;
}

std::string summaryText(const DiffResult& result, const DiffStyle& style) {
  Table table{{{.head = "KIND"},
               {.head = "CHANGES", .align = Column::Align::right},
               {.head = "FILES GREW BY", .align = Column::Align::right}},
              {}};
  const Sums sums = sumsOf(result);
  for (const Kind kind : kinds) {
    const Sum& sum = sums[static_cast<std::size_t>(kind)];
    table.rows.push_back({{std::string(name(kind)), std::nullopt, signOf(kind).tone},
                          {std::to_string(sum.count)},
                          {signedSize(sum.bytes), std::to_string(sum.bytes)}});
  }
  return style.forTerminal ? layOutForTerminal(table, {.width = 0, .color = style.color}) : layOutPlain(table);
}

class Pieces final {
 public:
  explicit Pieces(FunctionRef<void(std::string_view)> sink) : sink_(sink) {}
  void add(std::string_view line) {
    piece_ += line;
    if (piece_.size() >= pieceSize) flush();
  }
  void flush() {
    if (!piece_.empty()) sink_(piece_);
    piece_.clear();
  }

 private:
  FunctionRef<void(std::string_view)> sink_;
  std::string piece_;
};

std::string lineOf(const Row& row, const DiffStyle& style) {
  if (style.form == DiffForm::names) return nameLine(row, style.forTerminal);
  return style.forTerminal ? terminalLine(row, style.color) : plainLine(row);
}

// Both lists ascend by path; rows of items that the tree holds take their places.
void addTree(const DiffResult& result, const DiffStyle& style, Pieces& pieces) {
  auto row = result.rows.begin();
  for (const DiffResult::TreeEntry& entry : result.treeEntries) {
    bool isChanged = false;
    for (; row != result.rows.end() && row->path <= entry.path; ++row) {
      isChanged = isChanged || row->path == entry.path;
      pieces.add(lineOf(*row, style));
    }
    if (!isChanged) pieces.add(unchangedLine(entry, style.forTerminal));
  }
  for (; row != result.rows.end(); ++row) pieces.add(lineOf(*row, style));
}

}  // namespace

DiffResult::ChangeKind changeKindMeant(std::string_view word) {
  for (const Kind kind : kinds) {
    if (name(kind) == word) return kind;
  }
  throw wrongUse("There is no kind of change \"" + nameText(word) + "\".",
                 "The kinds are: added, deleted, modified, replaced, moved");
}

void printDiff(const DiffResult& result, const DiffStyle& style, FunctionRef<void(std::string_view)> sink) {
  if (style.form == DiffForm::summary) return sink(summaryText(result, style));
  Pieces pieces(sink);
  if (style.form == DiffForm::tree) {
    addTree(result, style, pieces);
  } else {
    for (const Row& row : result.rows) pieces.add(lineOf(row, style));
  }
  pieces.flush();
}

std::string summaryJson(const DiffResult& result) {
  const Sums sums = sumsOf(result);
  std::string json = "{";
  for (const Kind kind : kinds) {
    const Sum& sum = sums[static_cast<std::size_t>(kind)];
    json += fmt::format("\"{}\":{{\"count\":{},\"bytes\":{}}},", name(kind), sum.count, sum.bytes);
  }
  return json + fmt::format("\"truncated\":{},\"totalRowCount\":{}}}", result.truncated, result.totalRowCount);
}

}  // namespace quillmark::cli
