// Moments as people write and read them, in their own zone.
// Threads: as the clock.
#pragma once

#include <string>
#include <string_view>

#include "base/Date.h"

namespace quillmark {
class Clock;
}

namespace quillmark::cli {

// "2026-03-01 09:15:02", and for programs "2026-03-01T09:15:02+01:00".
[[nodiscard]] std::string shownTime(Clock& clock, Date date);
[[nodiscard]] std::string plainTime(Clock& clock, Date date);
// What a person means by
//   2h, 30min, 3d, 1w                   so long ago; s, min, h, d, w
//   today, yesterday                    its first moment
//   09:15, 09:15:02                     today at that time
//   2026-03-01, 2026-03-01 09:15[:02]   also with a "T" between, and with "Z" or "+01:00" behind it
// Throws wrongUse for anything else.
[[nodiscard]] Date momentMeant(Clock& clock, std::string_view text);

}  // namespace quillmark::cli
