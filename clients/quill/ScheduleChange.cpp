#include "quill/ScheduleChange.h"

#include <fmt/format.h>

#include <charconv>

#include "quill/Failures.h"
#include "quill/SizeText.h"
#include "scheduling/PeopleText.h"
#include "scheduling/rules/ScheduleLimits.h"

namespace quillmark::cli {
namespace {

SnapshotCadence cadenceMeant(const std::string& text) {
  if (const auto meant = cadence(text)) return *meant;
  throw wrongUse("There is no cadence \"" + text + "\".", "The cadences: freq, hourly, daily, weekly, monthly");
}

std::set<SnapshotCadence> cadencesMeant(const std::vector<std::string>& texts) {
  std::set<SnapshotCadence> all;
  for (const std::string& text : texts) all.insert(cadenceMeant(text));
  return all;
}

std::optional<bool> switchMeant(const char* option, const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  if (*text == "on") return true;
  if (*text == "off") return false;
  throw wrongUse(fmt::format("{} is \"on\" or \"off\", not \"{}\".", option, *text));
}

std::int64_t countMeant(SnapshotCadence cadence, std::string_view text) {
  std::int64_t count = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), count);
  const bool isWhole = failure == std::errc() && end == text.data() + text.size();
  if (isWhole && count >= ScheduleLimits::leastRetention && count <= mostRetained(cadence)) return count;
  throw wrongUse(fmt::format("Of the {} snapshots from {} to {} can be kept, not \"{}\".", word(cadence),
                             ScheduleLimits::leastRetention, mostRetained(cadence), text),
                 "What shall be kept for good: quill protect");
}

std::optional<std::int64_t> leastSpaceMeant(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  const std::int64_t bytes = sizeMeant(*text);
  if (bytes >= ScheduleLimits::leastLowSpaceBytes) return bytes;
  throw wrongUse(fmt::format("The free space to be kept is at least {}, not {}.",
                             fileSizeText(ScheduleLimits::leastLowSpaceBytes), fileSizeText(bytes)),
                 "To have no snapshot removed for want of space: --low-space off");
}

}  // namespace

ScheduleChange::ScheduleChange(const ScheduleRequest& request)
    : pruneOnLowSpace_(switchMeant("--low-space", request.lowSpace)),
      protectForeignSnapshots_(switchMeant("--protect-foreign", request.protectForeign)),
      tracked_(switchMeant("--tracked", request.tracked)), begun_(cadencesMeant(request.enable)),
      ended_(cadencesMeant(request.disable)), lowSpaceBytes_(leastSpaceMeant(request.lowSpaceBytes)) {
  if (request.action == ScheduleAction::on) enabled_ = true;
  if (request.action == ScheduleAction::off) enabled_ = false;
  for (const std::string& text : request.keep) takeKept(text);
  refuseContradictions();
}

void ScheduleChange::takeKept(const std::string& text) {
  const std::size_t at = text.find('=');
  if (at == std::string::npos) {
    throw wrongUse("--keep takes a cadence and a count, not \"" + text + "\".", "For example: --keep hourly=12");
  }
  const SnapshotCadence which = cadenceMeant(text.substr(0, at));
  kept_[which] = countMeant(which, std::string_view(text).substr(at + 1));
}

void ScheduleChange::refuseContradictions() const {
  for (const SnapshotCadence cadence : begun_) {
    if (ended_.contains(cadence)) throw wrongUse(fmt::format("{} is both enabled and disabled.", word(cadence)));
  }
}

SchedulePolicy ScheduleChange::appliedTo(SchedulePolicy policy) const {
  policy.enabled = enabled_.value_or(policy.enabled);
  policy.pruneOnLowSpace = pruneOnLowSpace_.value_or(policy.pruneOnLowSpace);
  policy.protectForeignSnapshots = protectForeignSnapshots_.value_or(policy.protectForeignSnapshots);
  if (tracked_) policy.tracked = tracked_;
  policy.enabledCadences.insert(begun_.begin(), begun_.end());
  for (const SnapshotCadence cadence : ended_) policy.enabledCadences.erase(cadence);
  for (const auto& [cadence, count] : kept_) policy.retention[cadence] = count;
  policy.lowSpaceBytes = lowSpaceBytes_.value_or(policy.lowSpaceBytes);
  return policy;
}

}  // namespace quillmark::cli
