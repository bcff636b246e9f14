// What this build of quill says of itself.
#pragma once

#include <string_view>

namespace quillmark::cli {

[[nodiscard]] std::string_view clientVersion();

}  // namespace quillmark::cli
