// What this build says of itself.
#pragma once

#include "platform/Bundle.h"

namespace quillmark {

[[nodiscard]] Bundle buildFacts();

}  // namespace quillmark
