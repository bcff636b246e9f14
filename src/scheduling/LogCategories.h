// Under which categories this room writes to the platform's log.
#pragma once

#include <string_view>

namespace quillmark::LogCategories {

inline constexpr std::string_view schedules = "schedules";
inline constexpr std::string_view volumeClocks = "volume-clocks";

}  // namespace quillmark::LogCategories
