// What the stores write into attributes and files: JSON (RFC 8259), with volumes by their lower-case UUIDs and XIDs as
// whole numbers.
//   protected-xids   {"v":1,"xids":[7,9]}          protected.json        {"<volume>":[7,9]}
//   snapshot-tags    {"7":"before the trip"}       snapshot-tags.json    {"<volume>":{"7":"before the trip"}}
//                                                  snapshot-names.json   {"<volume>":{"<snapshot>":"<display name>"}}
// Errors: reading throws Error for whatever isn't exactly of the form, a member given twice and a number past 64 bits
//         among it: half of a set would pass for the whole one.
// Threads: pure.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "base/Uuid.h"
#include "base/Xid.h"

namespace quillmark::StorePayloads {

using XidsByVolume = std::map<VolumeUuid, std::set<Xid>>;
using Texts = std::map<std::string, std::string>;
using TextsByVolume = std::map<VolumeUuid, Texts>;

[[nodiscard]] std::string encodeProtectedXids(const std::set<Xid>& xids);
[[nodiscard]] std::set<Xid> decodeProtectedXids(std::string_view json);

[[nodiscard]] std::string encodeXidsByVolume(const XidsByVolume& xids);
[[nodiscard]] XidsByVolume decodeXidsByVolume(std::string_view json);

[[nodiscard]] std::string encodeTexts(const Texts& texts);
[[nodiscard]] Texts decodeTexts(std::string_view json);

[[nodiscard]] std::string encodeTextsByVolume(const TextsByVolume& texts);
[[nodiscard]] TextsByVolume decodeTextsByVolume(std::string_view json);

// The XID as a key of tags; nothing for a text that is no such key.
[[nodiscard]] std::string tagKey(Xid xid);
[[nodiscard]] std::optional<Xid> xidOfTagKey(std::string_view key);

}  // namespace quillmark::StorePayloads
