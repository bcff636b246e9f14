// The words of quill's help.
// Threads: immutable.
#pragma once

#include <string_view>

namespace quillmark::cli {

struct HelpEntry {
  std::string_view name;
  std::string_view description;
  std::string_view footer;  // below the options: more to know, and examples
};

namespace HelpTexts {

extern const HelpEntry program, volumes, list, create, remove, mount, unmount, health, version, call;
extern const std::string_view volumeOption;

}  // namespace HelpTexts
}  // namespace quillmark::cli
