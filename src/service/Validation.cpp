#include "service/Validation.h"

#include <algorithm>

#include "base/Text.h"
#include "base/Uuid.h"
#include "platform/NameText.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

bool hasOnlyNameScalars(std::string_view text) {
  const std::u32string all = scalars(text);
  return isValidUtf8(text) && std::all_of(all.begin(), all.end(), [](char32_t s) { return s > 31 && s != U'/'; });
}

}  // namespace

bool isValidVolumeUUID(std::string_view text) { return Uuid::parse(text).has_value(); }

bool isValidLabel(std::string_view text) { return text.size() <= 127 && hasOnlyNameScalars(text); }

// Here and below: an escape that no name encodes to could smuggle a "/" or ".." past the check.
bool isValidSnapshotName(std::string_view text) {
  return !text.empty() && text.size() <= 240 && hasOnlyNameScalars(text) && isNameText(text, NameEscapes::controls);
}

bool isValidItemPath(std::string_view text) {
  return text.starts_with('/') && text.find("/../") == std::string_view::npos && !text.ends_with("/..") &&
         text.find('\0') == std::string_view::npos && scalars(text).size() < 4096 && isNameText(text);
}

void requireVolumeUUID(std::string_view text) {
  if (!isValidVolumeUUID(text)) {
    throw QuillmarkError::make(QuillmarkErrorCode::invalidVolumeUUID, "Volume UUID is malformed");
  }
}

void requireLabel(std::string_view text) {
  if (!isValidLabel(text)) {
    throw QuillmarkError::make(QuillmarkErrorCode::invalidLabel,
                               "Label must be 0-127 chars, no slashes, no control chars");
  }
}

void requireSnapshotName(std::string_view text) {
  if (!isValidSnapshotName(text)) {
    throw QuillmarkError::make(QuillmarkErrorCode::invalidSnapshotUUID, "Snapshot name is malformed");
  }
}

void requireBatchSize(std::size_t items) {
  if (items <= maxBatchItems) return;
  throw QuillmarkError::make(QuillmarkErrorCode::internalError,
                             "A batch holds at most " + std::to_string(maxBatchItems) + " items.");
}

}  // namespace quillmark
