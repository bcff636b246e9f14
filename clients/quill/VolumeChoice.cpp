#include "quill/VolumeChoice.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/Text.h"
#include "base/Uuid.h"
#include "quill/Failures.h"
#include "wire/QuillmarkError.h"

namespace quillmark::cli {
namespace {

using Volumes = std::vector<APFSVolume>;
constexpr std::size_t mostCandidates = 12;
constexpr std::string_view deviceDirectory = "/dev/";

std::string candidates(const Volumes& volumes) {
  if (volumes.empty()) return "No btrfs volume is mounted writable here.";
  std::string list;
  for (std::size_t i = 0; i < volumes.size() && i < mostCandidates; ++i) {
    const APFSVolume& volume = volumes[i];
    const std::string& known = volume.bsdName.empty() ? volume.id : volume.bsdName;
    list += fmt::format("{}{} ({}{}{})", i == 0 ? "" : "; ", volume.name, known, volume.mountPath ? ", " : "",
                        volume.mountPath.value_or(""));
  }
  if (volumes.size() > mostCandidates) list += fmt::format("; and {} more", volumes.size() - mostCandidates);
  return "Choose with -v one of: " + list;
}

Error unknown(const std::string& message, const Volumes& volumes) {
  return QuillmarkError::make(QuillmarkErrorCode::volumeNotFound, message).withRecoverySuggestion(candidates(volumes));
}

Error leftOut(const std::string& subject, const Volumes& volumes) {
  return unknown(subject + " is in a subvolume that isn't mounted by itself: the snapshots of no volume hold it.",
                 volumes);
}

template <class Condition>
Volumes those(const Volumes& volumes, Condition condition) {
  Volumes found;
  std::copy_if(volumes.begin(), volumes.end(), std::back_inserter(found), condition);
  return found;
}

Volumes mountedAt(const Volumes& volumes, const std::vector<std::string>& paths) {
  return those(volumes, [&](const APFSVolume& volume) {
    return volume.mountPath && std::find(paths.begin(), paths.end(), *volume.mountPath) != paths.end();
  });
}

Volumes named(const Volumes& volumes, const std::string& text) {
  const std::string_view device =
      text.starts_with(deviceDirectory) ? std::string_view(text).substr(deviceDirectory.size()) : text;
  Volumes found = those(volumes, [&](const APFSVolume& volume) {
    return volume.name == text || (!device.empty() && volume.bsdName == device);
  });
  if (!found.empty()) return found;
  return those(volumes, [&](const APFSVolume& volume) { return equalsIgnoringAsciiCase(volume.name, text); });
}

Volumes atPlace(const Volumes& volumes, const Place& place, const std::string& text) {
  switch (place.kind) {
    case Place::Kind::nothing: throw unknown(fmt::format("There is no volume \"{}\".", text), volumes);
    case Place::Kind::elsewhere:
      throw unknown(fmt::format("\"{}\" is on no volume that is served here.", text), volumes);
    case Place::Kind::nestedSubvolume: throw leftOut(fmt::format("\"{}\"", text), volumes);
    case Place::Kind::volumes: break;
  }
  Volumes found = mountedAt(volumes, place.mountPaths);
  if (found.empty()) throw unknown(fmt::format("\"{}\" is on no volume that is served here.", text), volumes);
  return found;
}

std::string decided(const Volumes& volumes, const Place& here) {
  // Not the only volume then: its snapshots would lack what the person looks at.
  if (here.kind == Place::Kind::nestedSubvolume) throw leftOut("The current directory", volumes);
  const Volumes hereabouts = mountedAt(volumes, here.mountPaths);
  if (hereabouts.size() == 1) return hereabouts.front().id;
  if (volumes.size() == 1) return volumes.front().id;
  if (volumes.empty()) throw unknown("There is no volume to work on.", volumes);
  throw wrongUse("Which volume? The current directory is on none of them.", candidates(volumes));
}

}  // namespace

std::string chooseVolume(LocalVolumes& volumes, const std::optional<std::string>& text) {
  if (text && Uuid::parse(*text)) return *text;
  const Volumes all = volumes.list(false);
  if (!text) return decided(all, volumes.here());
  Volumes meant = named(all, *text);
  if (meant.empty()) meant = atPlace(all, volumes.at(*text), *text);
  if (meant.size() > 1) throw wrongUse(fmt::format("\"{}\" means {} volumes.", *text, meant.size()), candidates(meant));
  return meant.front().id;
}

}  // namespace quillmark::cli
