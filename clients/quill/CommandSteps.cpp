#include "quill/CommandSteps.h"

#include <fmt/format.h>

#include <array>

#include "quill/Failures.h"
#include "quill/SnapshotReference.h"
#include "scheduling/rules/SnapshotNameInfo.h"
#include "wire/Json.h"

namespace quillmark::cli {
std::string listingOf(CommandContext& context, const std::string& volumeUUID) {
  return ask(context, "listing snapshots", ListSnapshots{.volumeUUID = volumeUUID}).value;
}

std::vector<SnapshotRecord> snapshotsOf(CommandContext& context, const std::string& volumeUUID) {
  return decodeJson<std::vector<SnapshotRecord>>(listingOf(context, volumeUUID));
}

SnapshotRecord snapshotMeant(const std::vector<SnapshotRecord>& snapshots, const std::string& reference) {
  if (SnapshotNameInfo::isSystemManaged(reference)) return {.name = reference};
  return resolveReference(snapshots, reference);
}

std::string shownNameOf(const SnapshotRecord& snapshot) {
  return snapshot.displayName && !snapshot.displayName->empty() ? *snapshot.displayName : shortName(snapshot.name);
}

void printResult(CommandContext& context, const std::string& key, const std::string& value,
                 const std::optional<Error>& warning) {
  if (context.output.json()) {
    const std::string tail = warning ? ",\"warning\":" + errorJson(*warning) : "";
    context.output.jsonText(fmt::format("{{{}:{}{}}}", jsonString(key), jsonString(value), tail));
  } else if (!value.empty()) {
    context.output.line(value);
  }
  if (warning) context.output.warn(*warning);
}

std::string shownSize(std::uint64_t bytes) {
  static constexpr std::array units{"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return fmt::format("{} B", bytes);
  double size = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  // 1023.95 would be rounded up to "1024.0".
  for (; size >= 1023.95 && unit + 1 < units.size(); ++unit) size /= 1024;
  return fmt::format("{:.1f} {}", size, units[unit]);
}

}  // namespace quillmark::cli
