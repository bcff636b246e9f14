#include "history/DiffCache.h"

#include <fmt/format.h>

#include <charconv>

#include "platform/clock.h"
#include "wire/DiffResult.h"

namespace quillmark {
namespace {

constexpr std::string_view rootName = "diff-cache";
constexpr std::string_view extension = ".qmdiff";
constexpr std::uint32_t passOnly = 0711;  // whoever knows a path gets there, nobody can look around
constexpr std::uint32_t ownerReads = 0400;
constexpr std::string_view unfinished = ".qlm-";  // what a process that was killed left of a file
constexpr Seconds lifetime{21'600.0};

// The two XIDs that a file's name begins with.
std::optional<std::pair<Xid, Xid>> xidsOf(std::string_view name) {
  Xid a, b;
  const char* const end = name.data() + name.size();
  const auto first = std::from_chars(name.data(), end, a.value);
  if (first.ec != std::errc() || first.ptr == end || *first.ptr != '-') return std::nullopt;
  const auto second = std::from_chars(first.ptr + 1, end, b.value);
  if (second.ec != std::errc()) return std::nullopt;
  return std::pair(a, b);
}

}  // namespace

DiffCache::DiffCache(FileWork& work, const SafeFS& files, Clock& clock, const HostPaths& paths)
    : work_(work), files_(files), clock_(clock), shared_(paths.sharedDirectory) {}

DiffCache::Place DiffCache::placeOf(const Request& request) {
  return {fmt::format("uid-{}", request.uid), request.volume.text(),
          fmt::format("{}-{}-{}{}{}", request.xidA.value, request.xidB.value, request.includeTree ? "tree" : "rows",
                      request.ignoreExclusions ? "-full" : "", extension)};
}

bool DiffCache::isFresh(const StatRecord& record) const {
  // Its owner can give it a date of years to come, but not that of the change.
  if (record.modified.seconds > record.changed.seconds) return false;
  const Date modified = Date::from1970(static_cast<double>(record.modified.seconds));
  return clock_.now() - modified <= lifetime;
}

std::optional<std::string> DiffCache::find(const Request& request) const {
  const Place place = placeOf(request);
  try {
    const SafeFS::Directory root = files_.openChild(std::string(rootName), files_.openDirectory(shared_));
    const SafeFS::Directory volume = files_.openChild(place.volume, files_.openChild(place.user, root));
    const auto record = files_.lstatChild(place.file, volume);
    const bool isOurs = record && record->type == FileType::regular && record->uid == request.uid &&
                        record->mode == ownerReads && record->links == 1;
    if (!isOurs || !isFresh(*record)) return std::nullopt;
    return fmt::format("{}/{}/{}/{}/{}", shared_, rootName, place.user, place.volume, place.file);
  } catch (const Error&) {
    return std::nullopt;
  }
}

std::string DiffCache::write(const Request& request, const DiffResult& result) const {
  const Place place = placeOf(request);
  const SafeFS::Directory shared = files_.openCreating(shared_, 0755, [](const SafeFS::Directory&) {});
  const SafeFS::Directory root = files_.ensureChild(std::string(rootName), shared, passOnly, 0, 0);
  const SafeFS::Directory user = files_.ensureChild(place.user, root, passOnly, 0, 0);
  sweep(user);
  const SafeFS::Directory volume = files_.ensureChild(place.volume, user, passOnly, 0, 0);
  std::string bytes;
  writeDiffResult(result, [&](std::string_view piece) { bytes += piece; });
  files_.writeAtomically(bytes, place.file, volume, ownerReads, request.uid, 0);
  return fmt::format("{}/{}/{}/{}/{}", shared_, rootName, place.user, place.volume, place.file);
}

void DiffCache::sweep(const SafeFS::Directory& user) const {
  for (const std::string& name : files_.list(user)) {
    try {
      const SafeFS::Directory volume = files_.openChild(name, user);
      for (const std::string& file : files_.list(volume)) {
        if (!file.ends_with(extension) && !file.starts_with(unfinished)) continue;
        const auto record = files_.lstatChild(file, volume);
        if (!record || record->type != FileType::regular || isFresh(*record)) continue;
        static_cast<void>(work_.unlinkat(volume.fd(), file).ok());
      }
    } catch (const Error&) {
      continue;  // no directory, or one that went meanwhile
    }
  }
}

void DiffCache::purge(const VolumeUuid& volume) {
  removeMatching(volume, [](const std::string&) { return true; });
}

void DiffCache::purge(const VolumeUuid& volume, const std::set<Xid>& xids) {
  removeMatching(volume, [&](const std::string& file) {
    const auto named = xidsOf(file);
    return named && (xids.contains(named->first) || xids.contains(named->second));
  });
}

void DiffCache::removeMatching(const VolumeUuid& volume, FunctionRef<bool(const std::string&)> matches) const {
  try {
    const SafeFS::Directory root = files_.openChild(std::string(rootName), files_.openDirectory(shared_));
    for (const std::string& user : files_.list(root)) {
      if (!user.starts_with("uid-")) continue;
      try {
        const SafeFS::Directory place = files_.openChild(volume.text(), files_.openChild(user, root));
        for (const std::string& file : files_.list(place)) {
          if (file.ends_with(extension) && matches(file)) static_cast<void>(work_.unlinkat(place.fd(), file).ok());
        }
      } catch (const Error&) {
        continue;  // nothing of this volume
      }
    }
  } catch (const Error&) {
    return;  // nothing was ever written
  }
}

}  // namespace quillmark
