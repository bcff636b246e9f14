// What a service of the machine settles before it starts: one instance, a kernel new enough, where standard error goes,
// which signals end it.
// Errors: throw Error with one sentence for whoever started the service.
#pragma once

#include <optional>
#include <string>

#include "base/UniqueFd.h"

namespace quillmark::os {

// Throws unless this is root on a kernel that has what the backend calls.
void requireHost();

// The exclusive right to be the one instance, held as long as the descriptor lives; the directory is made when missing.
// Absent when another process holds it, and goes on holding it for half a second. Throws when it can't be asked.
[[nodiscard]] std::optional<UniqueFd> lockInstance(const std::string& directory);

// Sends standard error to the file unless it is that file already, or a terminal. True when the file was opened here,
// so that it is ours to rotate.
[[nodiscard]] bool sendStandardErrorTo(const std::string& file);

// The listening socket that the service manager passed, if any (sd_listen_fds(3)), made non-blocking. What is no
// listening stream socket of the unix family is closed and counts as none.
[[nodiscard]] std::optional<UniqueFd> activatedSocket();

// Signals that ask to quit reach only waitForQuitSignal(), SIGPIPE nobody. Call before any thread starts.
void prepareSignals();
void waitForQuitSignal();

// The directory of the running program.
[[nodiscard]] std::string programDirectory();

}  // namespace quillmark::os
