#include "scheduling/DiskEventLog.h"

#include <fmt/format.h>

#include <array>

#include "base/Text.h"

namespace quillmark {

std::string_view word(DiskEvent::Kind kind) {
  constexpr std::array words{"disk-appeared", "disk-disappeared", "disk-description-changed", "served-elsewhere"};
  return words.at(static_cast<std::size_t>(kind));
}

std::optional<std::string> DiskEventLog::line(const DiskEvent& event, Date now) {
  const auto hour = static_cast<std::int64_t>(now.secondsSince1970() / 3600);
  const int number = state_.with([&](State& state) {
    if (std::exchange(state.hour, hour) != hour) state.itemised = 0;
    return state.itemised > mostItemised + 1 ? state.itemised : ++state.itemised;
  });
  if (number > mostItemised + 1) return std::nullopt;
  if (number == mostItemised + 1) {
    return fmt::format("{} ({} disk events itemised this hour; the rest are not logged)", word(event.kind),
                       mostItemised);
  }
  const bool isAPFS = event.volumeKind && equalsIgnoringAsciiCase(*event.volumeKind, "apfs");
  return fmt::format("{} {} {}{}", word(event.kind), event.mediaBsdName.value_or("?"),
                     event.volumePath.value_or("not mounted"), isAPFS ? " apfs" : "");
}

}  // namespace quillmark
