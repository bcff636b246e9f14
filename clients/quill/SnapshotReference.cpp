#include "quill/SnapshotReference.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include "quill/Failures.h"
#include "scheduling/rules/SnapshotNameInfo.h"
#include "wire/QuillmarkError.h"

namespace quillmark::cli {
namespace {

constexpr std::string_view latestWord = "latest";
constexpr std::size_t mostCandidates = 8;

std::optional<std::uint64_t> wholeNumber(std::string_view text) {
  std::uint64_t number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || failure != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// How many snapshots before the newest one; absent when the text is no such reference.
std::optional<std::uint64_t> ageOf(std::string_view reference) {
  if (reference == latestWord) return 0;
  if (!reference.starts_with(latestWord) || reference.substr(latestWord.size(), 1) != "~") return std::nullopt;
  return wholeNumber(reference.substr(latestWord.size() + 1));
}

Error notFound(std::string_view reference) {
  return QuillmarkError::make(QuillmarkErrorCode::snapshotNotFound,
                              fmt::format("There is no snapshot \"{}\".", reference));
}

SnapshotRecord byAge(std::vector<SnapshotRecord> snapshots, std::uint64_t age, std::string_view reference) {
  if (age >= snapshots.size()) {
    throw QuillmarkError::make(
        QuillmarkErrorCode::snapshotNotFound,
        fmt::format("There is no snapshot \"{}\": the volume has {}.", reference, snapshots.size()));
  }
  const auto wanted = snapshots.begin() + static_cast<std::ptrdiff_t>(age);
  std::nth_element(snapshots.begin(), wanted, snapshots.end(),
                   [](const auto& a, const auto& b) { return a.xid > b.xid; });
  return *wanted;
}

bool bearsLabel(const SnapshotRecord& snapshot, std::string_view text) {
  if (snapshot.displayName == text) return true;
  const auto parsed = SnapshotNameInfo::parse(snapshot.name);
  if (!parsed.label) return false;
  const std::string sanitized = SnapshotNameInfo::sanitizeLabel(text);
  return *parsed.label == text || (!sanitized.empty() && *parsed.label == sanitized);
}

bool endsWithPart(std::string_view name, std::string_view part) {
  return name.size() > part.size() && name.ends_with(part) && name[name.size() - part.size() - 1] == '.';
}

std::vector<const SnapshotRecord*> allMeant(const std::vector<SnapshotRecord>& snapshots, std::string_view reference) {
  const std::optional<std::uint64_t> number = wholeNumber(reference);
  std::vector<const SnapshotRecord*> meant;
  for (const SnapshotRecord& snapshot : snapshots) {
    if (snapshot.name == reference) return {&snapshot};
    if (number == snapshot.xid.value || bearsLabel(snapshot, reference) || endsWithPart(snapshot.name, reference)) {
      meant.push_back(&snapshot);
    }
  }
  return meant;
}

Error ambiguous(std::string_view reference, const std::vector<const SnapshotRecord*>& meant) {
  std::string list;
  for (std::size_t i = 0; i < meant.size() && i < mostCandidates; ++i) {
    list += fmt::format("{}{} ({})", i == 0 ? "" : ", ", meant[i]->xid.value, shortName(meant[i]->name));
  }
  if (meant.size() > mostCandidates) list += fmt::format(" and {} more", meant.size() - mostCandidates);
  return QuillmarkError::make(QuillmarkErrorCode::ambiguousSnapshotRef,
                              fmt::format("\"{}\" means {} snapshots.", reference, meant.size()))
      .withRecoverySuggestion("Name one by its XID: " + list);
}

}  // namespace

SnapshotRecord resolveReference(const std::vector<SnapshotRecord>& snapshots, std::string_view reference) {
  if (reference.empty()) throw wrongUse("A snapshot reference can't be empty.");
  if (const auto age = ageOf(reference)) return byAge(snapshots, *age, reference);
  const auto meant = allMeant(snapshots, reference);
  if (meant.empty()) throw notFound(reference);
  if (meant.size() > 1) throw ambiguous(reference, meant);
  return *meant.front();
}

std::string shortName(std::string_view name) {
  if (SnapshotNameInfo::isOwned(name)) name.remove_prefix(SnapshotNameInfo::prefix.size());
  return std::string(name);
}

}  // namespace quillmark::cli
