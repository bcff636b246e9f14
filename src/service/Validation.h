// The rules for arguments that many commands share. The refusal's text is the command's.
#pragma once

#include <cstddef>
#include <string_view>

namespace quillmark {

// Exactly 36 characters that parse as a UUID, in either case.
[[nodiscard]] bool isValidVolumeUUID(std::string_view text);
// At most 127 bytes of UTF-8, every scalar above 31 and no "/". Empty passes.
[[nodiscard]] bool isValidLabel(std::string_view text);
// 1 to 240 bytes of UTF-8, every scalar above 31 and no "/".
[[nodiscard]] bool isValidSnapshotName(std::string_view text);

// An absolute path of names (platform/NameText.h) that stays where it seems to lead, of fewer than 4096 characters.
[[nodiscard]] bool isValidItemPath(std::string_view text);

// Throws invalidVolumeUUID with "Volume UUID is malformed".
void requireVolumeUUID(std::string_view text);
// Throws invalidLabel.
void requireLabel(std::string_view text);
// Throws invalidSnapshotUUID with "Snapshot name is malformed".
void requireSnapshotName(std::string_view text);

// A batch writes a record an item: without a bound one request line would keep its queue for many minutes.
inline constexpr std::size_t maxBatchItems = 10'000;
// Throws internalError.
void requireBatchSize(std::size_t items);

}  // namespace quillmark
