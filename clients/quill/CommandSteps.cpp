#include "quill/CommandSteps.h"

#include <fmt/format.h>

#include <array>
#include <chrono>
#include <cmath>

#include "platform/clock.h"
#include "quill/Failures.h"
#include "quill/SnapshotReference.h"
#include "scheduling/rules/SnapshotNameInfo.h"
#include "wire/Json.h"

namespace quillmark::cli {
namespace {

// How far local time is ahead of UTC at that moment.
std::chrono::minutes offsetFromUTC(const LocalTime& local, Date date) {
  const std::chrono::year_month_day day(std::chrono::year(local.year),
                                        std::chrono::month(static_cast<unsigned>(local.month)),
                                        std::chrono::day(static_cast<unsigned>(local.day)));
  const std::chrono::seconds asUTC = std::chrono::sys_days(day).time_since_epoch() + std::chrono::hours(local.hour) +
                                     std::chrono::minutes(local.minute) + std::chrono::seconds(local.second);
  const std::chrono::seconds moment(static_cast<std::int64_t>(std::floor(date.secondsSince1970())));
  return std::chrono::round<std::chrono::minutes>(asUTC - moment);
}

std::string civil(const LocalTime& time, char between) {
  return fmt::format("{:04}-{:02}-{:02}{}{:02}:{:02}:{:02}", time.year, time.month, time.day, between, time.hour,
                     time.minute, time.second);
}

}  // namespace

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

std::string shownTime(Clock& clock, Date date) { return civil(clock.local(date), ' '); }

std::string plainTime(Clock& clock, Date date) {
  const LocalTime local = clock.local(date);
  const auto offset = offsetFromUTC(local, date).count();
  const auto distance = offset < 0 ? -offset : offset;
  return fmt::format("{}{}{:02}:{:02}", civil(local, 'T'), offset < 0 ? '-' : '+', distance / 60, distance % 60);
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
