// JSON of records (RFC 8259): each record is described once, next to its definition, and coded by wire/RecordCoding.h.
//
// A map is an object by its string keys, or a flat array of alternating key and value when its keys are no strings.
// Dates are seconds since 2001-01-01 UTC, or ISO 8601 where a record's description says so; an empty optional is left
// out, and a missing or null one is empty; enumerations are their case names; key order means nothing.
// Threads: pure.
// Errors:  decodeJson throws Error with what is wrong and where; it takes hostile input.
#pragma once

#include <string>
#include <string_view>

namespace quillmark {

// Instantiated for every record, and for arrays of them, by the .cpp that describes it.
template <class Record>
[[nodiscard]] std::string encodeJson(const Record& record);
template <class Record>
[[nodiscard]] Record decodeJson(std::string_view text);

// Bounds of every text that comes from a peer.
inline constexpr std::size_t maxJsonDepth = 32;
inline constexpr std::size_t maxJsonMemory = std::size_t{64} << 20;

}  // namespace quillmark
