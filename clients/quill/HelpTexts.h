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

extern const HelpEntry program, volumes, list, create, safety, index, diff, remove, protect, unprotect, tag, mount,
    unmount, log, schedule, settings, plan, space, notices, watch, health, quit, version, call;
extern const std::string_view volumeOption, logVolumeOption;

}  // namespace HelpTexts
}  // namespace quillmark::cli
