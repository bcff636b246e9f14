// Bundle: what the build says of itself. A fact the build didn't record is absent.
// Threads: immutable.
#pragma once

#include <optional>
#include <string>

namespace quillmark {

struct Bundle {
  std::optional<std::string> identifier;
  std::optional<std::string> shortVersion;  // CFBundleShortVersionString
  std::optional<std::string> gitCommit;
  // What administrators have to know of the key that tells genuine clients; absent when there is nothing to say.
  std::optional<std::string> anchorNote;
};

}  // namespace quillmark
