#include "scheduling/rules/SnapshotNameInfo.h"

#include <fmt/format.h>

#include <algorithm>

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

// Takes the next piece between dots off the text; empty at the end.
std::string_view takePiece(std::string_view& text) {
  text.remove_prefix(std::min(text.find_first_not_of('.'), text.size()));
  const std::string_view piece = text.substr(0, text.find('.'));
  text.remove_prefix(piece.size());
  return piece;
}

struct Beginning {
  Kind kind;
  std::string_view rest;  // timestamp and label
};

Beginning beginningOf(std::string_view name) {
  if (!isOwned(name)) return {Kind::unknown(), {}};
  std::string_view text = name.substr(prefix.size());
  const std::string_view first = takePiece(text);
  if (first == manualWord) return {Kind::manual(), text};
  if (first == safetyWord) return {Kind::safety(), text};
  if (first == autoWord) {
    const auto known = cadence(takePiece(text));
    if (known && text.find_first_not_of('.') != std::string_view::npos) return {Kind::automatic(*known), text};
  }
  return {Kind::manual(), {}};
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
  auto [kind, rest] = beginningOf(name);
  Parsed parsed{kind, std::nullopt, std::nullopt};
  const std::string_view stamp = takePiece(rest);
  if (stamp.empty()) return parsed;
  parsed.utcTimestamp = parseTimestamp(stamp);
  for (std::string_view piece = takePiece(rest); !piece.empty(); piece = takePiece(rest)) {
    parsed.label = parsed.label ? *parsed.label + "." + std::string(piece) : std::string(piece);
  }
  return parsed;
}

Kind kind(std::string_view name) { return beginningOf(name).kind; }

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
