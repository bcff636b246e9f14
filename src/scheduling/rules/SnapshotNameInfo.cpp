#include "scheduling/rules/SnapshotNameInfo.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

#include "base/Text.h"

namespace quillmark::SnapshotNameInfo {
namespace {

std::string formatTimestamp(Date date) {
  std::string text = iso8601(date);
  std::replace(text.begin() + 11, text.end(), ':', '-');
  return text;
}

// The one form that formatTimestamp writes, with fields in their ranges.
std::optional<Date> parseTimestamp(std::string_view text) {
  constexpr std::size_t joints[] = {13, 16};
  std::string iso(text);
  for (const std::size_t at : joints) {
    if (iso.size() <= at || iso[at] != '-') return std::nullopt;
    iso[at] = ':';
  }
  return parseIso8601(iso);
}

std::vector<std::string_view> nonEmptyPieces(std::string_view text) {
  std::vector<std::string_view> pieces;
  while (!text.empty()) {
    const auto dot = text.find('.');
    if (dot != 0) pieces.push_back(text.substr(0, dot));
    if (dot == std::string_view::npos) break;
    text.remove_prefix(dot + 1);
  }
  return pieces;
}

// Timestamp and label, from the piece at `at` on.
Parsed rest(Kind kind, const std::vector<std::string_view>& pieces, std::size_t at) {
  Parsed parsed{kind, parseTimestamp(pieces[at]), std::nullopt};
  for (std::size_t i = at + 1; i < pieces.size(); ++i) {
    if (parsed.label) {
      *parsed.label += '.';
    } else {
      parsed.label.emplace();
    }
    *parsed.label += pieces[i];
  }
  return parsed;
}

std::string kindPart(Kind kind) {
  switch (kind.value) {
    case Kind::Case::automatic: return fmt::format("{}.{}", autoWord, word(kind.cadence.value()));
    case Kind::Case::safety: return std::string(safetyWord);
    case Kind::Case::manual:
    case Kind::Case::unknown: break;
  }
  return std::string(manualWord);
}

}  // namespace

Parsed parse(std::string_view name) {
  if (!isOwned(name)) return {Kind::unknown(), std::nullopt, std::nullopt};
  const Parsed bareManual{Kind::manual(), std::nullopt, std::nullopt};
  const std::vector<std::string_view> pieces = nonEmptyPieces(name.substr(prefix.size()));
  if (pieces.empty()) return bareManual;
  if (pieces[0] == manualWord || pieces[0] == safetyWord) {
    const Kind kind = pieces[0] == manualWord ? Kind::manual() : Kind::safety();
    return pieces.size() < 2 ? Parsed{kind, std::nullopt, std::nullopt} : rest(kind, pieces, 1);
  }
  if (pieces[0] == autoWord && pieces.size() >= 3) {
    if (const auto known = cadence(pieces[1])) return rest(Kind::automatic(*known), pieces, 2);
  }
  return bareManual;
}

Kind kind(std::string_view name) { return parse(name).kind; }

std::string sanitizeLabel(std::string_view label) {
  std::string result;
  bool afterHyphen = false;
  for (const char32_t scalar : scalars(label)) {
    if (isWhitespaceOrNewline(scalar)) {
      if (!afterHyphen) result += '-';
      afterHyphen = true;
      continue;
    }
    const bool kept = (scalar >= 'a' && scalar <= 'z') || (scalar >= 'A' && scalar <= 'Z') ||
                      (scalar >= '0' && scalar <= '9') || scalar == '-' || scalar == '.' || scalar == '_';
    if (!kept) continue;
    result += static_cast<char>(scalar);
    afterHyphen = scalar == '-';
  }
  return result;
}

std::string format(std::string_view label, Kind kind, Date date) {
  const std::string sanitized = sanitizeLabel(label);
  std::string name = fmt::format("{}{}.{}", prefix, kindPart(kind), formatTimestamp(date));
  if (!sanitized.empty()) name += "." + sanitized;
  // All ASCII, so that bytes are characters.
  if (name.size() > longestName) name.resize(longestName);
  return name;
}

bool isOwned(std::string_view name) { return name.starts_with(prefix); }
bool isSystemManaged(std::string_view name) { return name.starts_with(systemPrefix); }

}  // namespace quillmark::SnapshotNameInfo
