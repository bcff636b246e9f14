// What this build says of itself.
#pragma once

#include "platform/Bundle.h"
#include "platform/linux/identity/CodeSignature.h"

namespace quillmark {

[[nodiscard]] Bundle buildFacts();
// The key whose signature makes a client genuine.
[[nodiscard]] os::CodeAnchor codeAnchor();

}  // namespace quillmark
