// What this build says of itself.
#pragma once

#include <string>

#include "platform/Bundle.h"

namespace quillmark {

[[nodiscard]] Bundle buildFacts();
// The public key whose signature makes a client genuine, 64 hexadecimal digits.
[[nodiscard]] std::string codeAnchorDigits();

}  // namespace quillmark
