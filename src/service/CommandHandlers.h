// CommandHandlers: from a row of the command table to the code that serves it. Handlers live by subject in the
// ...Commands files.
// Threads: immutable after construction.
#pragma once

#include <string_view>

#include "service/CommandRun.h"
#include "wire/CommandTable.h"

namespace quillmark {

// Runs the command to its reply, failures included.
using CommandHandler = void (*)(CommandRun& run, const ArgumentValues& arguments);

// Null for a row without a handler: the build's tests hold that there is none.
[[nodiscard]] CommandHandler handlerOf(std::string_view selector);

}  // namespace quillmark
