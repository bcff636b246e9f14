#include "platform/linux/UnservedSubvolumes.h"

#include <algorithm>
#include <map>
#include <set>

#include "platform/NameText.h"
#include "platform/linux/SnapshotList.h"
#include "platform/linux/SnapshotNames.h"

namespace quillmark::os {
namespace {

constexpr int nestingLimit = 128;

bool isSnapshot(const btrfs::Subvolume& subvolume) { return subvolume.readOnly && !subvolume.parentUuid.isNil(); }

// The volume in whose place of ours the path stands.
std::optional<Uuid> volumeOfPlace(const TopLevelPath& path) {
  const std::string root = std::string(placesDirectory) + "/";
  constexpr std::size_t uuidLength = 36;
  if (!path.whole || !path.bytes.starts_with(root)) return std::nullopt;
  const std::string_view rest = std::string_view(path.bytes).substr(root.size());
  if (rest.size() <= uuidLength + 1 || rest[uuidLength] != '/') return std::nullopt;
  return Uuid::parse(rest.substr(0, uuidLength));
}

// All subvolumes of a file system, with those that are mounted as volumes.
class Survey final {
 public:
  Survey(const MountedSubvolume& volume, const MountTable& table) : volume_(volume), paths_(volume.fd.get()) {
    for (const MountEntry* entry : table.volumes()) {
      if (entry->device == volume.device) served_.insert(*entry->subvolumeId);
    }
  }

  [[nodiscard]] SysStatus read() {
    const auto topLevel = btrfs::findSubvolume(volume_.fd.get(), btrfs::topLevelId);
    if (!topLevel) return Errno{topLevel.error()};
    topLevel_ = topLevel->subvolume.uuid.isNil() ? volume_.fsid : topLevel->subvolume.uuid;
    return btrfs::forEachSubvolume(volume_.fd.get(), [&](const btrfs::Subvolume& subvolume, const btrfs::Place& place) {
      paths_.know(subvolume.id, place);
      all_.emplace(subvolume.id, Known{subvolume, place});
    });
  }

  [[nodiscard]] SysResult<std::vector<StrandedSnapshots>> stranded();
  [[nodiscard]] SysStatus addNested(UnservedSubvolumes& found);

 private:
  struct Known {
    btrfs::Subvolume subvolume;
    btrfs::Place place;
  };

  [[nodiscard]] bool isServed(const Uuid& volume) const {
    return std::any_of(served_.begin(), served_.end(), [&](btrfs::SubvolumeId id) {
      const auto found = all_.find(id);
      return id == btrfs::topLevelId ? topLevel_ == volume
                                     : found != all_.end() && found->second.subvolume.uuid == volume;
    });
  }
  [[nodiscard]] SysResult<std::optional<std::string>> pathOfVolume(const Uuid& volume);
  [[nodiscard]] bool isLeftOut(const Known& one) const;
  [[nodiscard]] SysResult<std::string> pathWithin(const Known& one);

  const MountedSubvolume& volume_;
  SubvolumePaths paths_;
  std::set<btrfs::SubvolumeId> served_;
  Uuid topLevel_;
  std::map<btrfs::SubvolumeId, Known> all_;
};

SysResult<std::optional<std::string>> Survey::pathOfVolume(const Uuid& volume) {
  if (volume == topLevel_) return std::optional<std::string>("/");
  for (const auto& [id, known] : all_) {
    if (known.subvolume.uuid != volume) continue;
    const auto path = paths_.pathOf(known.place);
    if (!path) return Errno{path.error()};
    return std::optional("/" + nameText(path->bytes));
  }
  return std::optional<std::string>();
}

SysResult<std::vector<StrandedSnapshots>> Survey::stranded() {
  std::map<Uuid, std::uint64_t> counts;
  for (const auto& [id, known] : all_) {
    if (!isSnapshot(known.subvolume) || known.place.parent != btrfs::topLevelId) continue;
    const auto path = paths_.pathOf(known.place);
    if (!path) return Errno{path.error()};
    if (const auto volume = volumeOfPlace(*path)) ++counts[*volume];
  }
  std::vector<StrandedSnapshots> stranded;
  for (const auto& [volume, count] : counts) {
    if (isServed(volume)) continue;
    auto path = pathOfVolume(volume);
    if (!path) return Errno{path.error()};
    stranded.push_back({volume, count, std::move(*path)});
  }
  return stranded;
}

bool Survey::isLeftOut(const Known& one) const {
  if (served_.contains(one.subvolume.id) || isSnapshot(one.subvolume)) return false;
  btrfs::SubvolumeId above = one.place.parent;
  for (int depth = 0; depth < nestingLimit && above != volume_.subvolume.id; ++depth) {
    const auto found = all_.find(above);
    if (found == all_.end() || served_.contains(above) || isSnapshot(found->second.subvolume)) return false;
    above = found->second.place.parent;
  }
  return above == volume_.subvolume.id;
}

SysResult<std::string> Survey::pathWithin(const Known& one) {
  const auto path = paths_.pathOf(one.place);
  if (!path) return Errno{path.error()};
  std::string bytes = path->bytes;
  const auto volume = all_.find(volume_.subvolume.id);
  if (volume != all_.end()) {
    const auto root = paths_.pathOf(volume->second.place);
    if (!root) return Errno{root.error()};
    if (path->whole && root->whole && bytes.starts_with(root->bytes + "/")) bytes.erase(0, root->bytes.size() + 1);
  }
  return nameText(bytes);
}

SysStatus Survey::addNested(UnservedSubvolumes& found) {
  for (const auto& [id, known] : all_) {
    if (!isLeftOut(known) || ++found.nestedCount > UnservedSubvolumes::mostPaths) continue;
    auto path = pathWithin(known);
    if (!path) return Errno{path.error()};
    found.nestedPaths.push_back(std::move(*path));
  }
  std::sort(found.nestedPaths.begin(), found.nestedPaths.end());
  return {};
}

}  // namespace

SysResult<UnservedSubvolumes> unservedSubvolumes(const MountedSubvolume& volume, const MountTable& table) {
  Survey survey(volume, table);
  if (const SysStatus read = survey.read(); !read) return Errno{read.error()};
  UnservedSubvolumes found;
  found.fileSystem = volume.fsid;
  auto stranded = survey.stranded();
  if (!stranded) return Errno{stranded.error()};
  found.stranded = std::move(*stranded);
  if (const SysStatus nested = survey.addNested(found); !nested) return Errno{nested.error()};
  return found;
}

}  // namespace quillmark::os
