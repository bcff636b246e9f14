// Constants of the service as its clients know it.
#pragma once

#include <cstdint>
#include <string_view>

namespace quillmark::QuillmarkXPC {

inline constexpr std::string_view serviceName = "com.harrowfern.quillmark.helper";
inline constexpr std::int64_t protocolVersion = 18;
inline constexpr std::string_view errorDomain = "com.harrowfern.quillmark.Error";

inline constexpr std::string_view guiIdentifier = "com.harrowfern.quillmark";
inline constexpr std::string_view cliIdentifier = "com.harrowfern.quillmark.cli";
inline constexpr std::string_view finderSyncIdentifier = "com.harrowfern.quillmark.findersync";

// What the code of every peer has to satisfy.
inline constexpr std::string_view designatedRequirement =
    "anchor apple generic and (identifier \"com.harrowfern.quillmark\"      or identifier "
    "\"com.harrowfern.quillmark.cli\"      or identifier \"com.harrowfern.quillmark.findersync\") and certificate "
    "leaf[subject.OU] = \"R4MTZ8KP2C\"";

}  // namespace quillmark::QuillmarkXPC
