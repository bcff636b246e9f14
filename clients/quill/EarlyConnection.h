// What quill does before anything else. The helper knows a genuine client by the group that the program's file gives it.
// That group serves to connect and for nothing else: whatever runs with it, a pager for one, could pass as this client.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "base/Error.h"
#include "platform/Transport.h"
#include "quill/Pager.h"

namespace quillmark::cli {

// Leaves of the environment what the output is chosen by, each in its plain form: the terminal's kind, whether colours are
// unwanted, language and time zone. Nothing in it names a file, a program or a library. Call before anything reads it.
// The person's pager is no part of it: it comes back, for when the group is given up.
[[nodiscard]] PagerWish keepHarmlessEnvironment();

struct EarlyConnection {
  std::unique_ptr<ClientChannel> channel;
  std::optional<Error> failure;  // why there is none; absent where none was tried
};

// Where the file gives a group: connects, then gives the group up for good. Call before anything reads an argument, the
// environment or a file. Ends the process when the group can't be given up.
[[nodiscard]] EarlyConnection connectAndDropGroup(const std::string& socket);

}  // namespace quillmark::cli
