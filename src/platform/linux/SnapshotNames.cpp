#include "platform/linux/SnapshotNames.h"

#include <cerrno>

#include "base/Text.h"
#include "platform/NameText.h"

namespace quillmark::os {
namespace {

constexpr std::size_t foreignNameLimit = 240;
constexpr std::size_t uuidDigits = 16;
constexpr std::size_t fileNameLimit = 255;

std::string joinedByColons(std::string_view path) {
  std::string joined;
  joined.reserve(path.size() + 8);
  for (const char byte : path) {
    switch (byte) {
      case '/': joined += ':'; break;
      case ':': joined += "%3A"; break;
      case '%': joined += "%25"; break;
      default: joined += byte;
    }
  }
  return joined;
}

// The longest end of well-formed text that fits.
std::string_view endOf(std::string_view text, std::size_t limit) {
  std::size_t at = text.size() > limit ? text.size() - limit : 0;
  while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) ++at;
  return text.substr(at);
}

std::string digitsOf(const Uuid& uuid) {
  std::string digits;
  for (const char c : uuid.lower()) {
    if (c != '-' && digits.size() < uuidDigits) digits += c;
  }
  return digits;
}

std::string foreignName(const TopLevelPath& path, const Uuid& snapshot) {
  const std::string text = nameText(joinedByColons(path.bytes), NameEscapes::controls);
  if (path.whole && text.size() < foreignNameLimit) return ":" + text;
  std::string head = "::" + digitsOf(snapshot) + ":";
  head += endOf(text, foreignNameLimit - head.size());
  return head;
}

}  // namespace

Xid snapshotXid(const btrfs::Subvolume& snapshot) { return {(snapshot.otransid << 16) | (snapshot.id & 0xFFFF)}; }

std::string listedName(const TopLevelPath& path, const Uuid& volume, const Uuid& snapshot) {
  const std::string place = std::string(placesDirectory) + "/" + volume.lower() + "/";
  if (!path.whole || !path.bytes.starts_with(place)) return foreignName(path, snapshot);
  const std::string_view name = std::string_view(path.bytes).substr(place.size());
  if (name.find('/') != name.npos || name.starts_with(':')) return foreignName(path, snapshot);
  return nameText(name, NameEscapes::controls);
}

SysResult<std::string> placeFileName(std::string_view name) {
  std::string bytes = nameBytes(name);
  const bool possible = !bytes.empty() && bytes != "." && bytes != ".." && !bytes.starts_with(':') &&
                        bytes.find('/') == bytes.npos && bytes.find('\0') == bytes.npos &&
                        isNameText(name, NameEscapes::controls);
  if (!possible) return Errno{EINVAL};
  if (bytes.size() > fileNameLimit) return Errno{ENAMETOOLONG};
  return bytes;
}

}  // namespace quillmark::os
