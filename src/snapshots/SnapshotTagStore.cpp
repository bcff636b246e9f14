#include "snapshots/SnapshotTagStore.h"

#include <fmt/format.h>

#include <cerrno>

#include "platform/VolumeAttributes.h"
#include "snapshots/StoreHomes.h"
#include "snapshots/StorePayloads.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using QuillmarkErrorCode::internalError;
using Texts = StorePayloads::Texts;

constexpr std::size_t maxTagBytes = 8192;
const char* const attributeName = "com.harrowfern.quillmark.snapshot-tags";

void put(Texts& tags, const std::string& key, const std::optional<std::string>& tag) {
  if (tag) {
    tags[key] = *tag;
  } else {
    tags.erase(key);
  }
}

Error attributeError(const std::string& what, const VolumeInfo& volume, int error) {
  return QuillmarkError::make(internalError,
                              what + " snapshot-tag xattr on " + volume.mountPoint + ": " + errnoText(error));
}

// For what the caller can do without.
void bestEffort(FunctionRef<void()> work) {
  try {
    work();
  } catch (const std::exception&) {
  }
}

}  // namespace

SnapshotTagStore::SnapshotTagStore(Threads& threads, Posix& posix, Random& random, VolumeAttributes& attributes,
                                   const HostPaths& paths)
    : posix_(posix), random_(random), attributes_(attributes), path_(paths.state("snapshot-tags.json")),
      lock_(threads) {}

std::map<Xid, std::string> SnapshotTagStore::tags(const VolumeInfo& volume) {
  MutexLock lock(lock_);
  loadLocked();
  Texts shown;
  bestEffort([&] { shown = readAttribute(volume); });
  shown.merge(localTagsLocked(volume.key()));
  std::map<Xid, std::string> tags;
  for (auto& [key, tag] : shown) {
    if (const auto xid = StorePayloads::xidOfTagKey(key)) tags[*xid] = std::move(tag);
  }
  return tags;
}

Xid SnapshotTagStore::setTag(const VolumeInfo& volume, const std::optional<std::string>& tag,
                             FunctionRef<std::optional<Xid>()> xidOf) {
  if (tag && tag->size() > maxTagBytes) {
    throw QuillmarkError::make(internalError,
                               fmt::format("Tag is too large ({} bytes; limit {}).", tag->size(), maxTagBytes));
  }
  MutexLock lock(lock_);
  loadLocked();
  const std::optional<Xid> xid = xidOf();
  if (!xid) {
    throw QuillmarkError::make(QuillmarkErrorCode::snapshotNotFound,
                               "Snapshot disappeared before its tag could be changed");
  }
  setTagLocked(volume, StorePayloads::tagKey(*xid), tag);
  return *xid;
}

void SnapshotTagStore::setTagLocked(const VolumeInfo& volume, const std::string& key,
                                    const std::optional<std::string>& tag) {
  const Texts before = readAttribute(volume);
  Texts inAttribute = before;
  put(inAttribute, key, tag);
  const SysStatus written = writeAttribute(volume, inAttribute);
  const bool wasInAttribute = before.contains(key);
  if (written.error() == E2BIG && wasInAttribute) return moveToLocalLocked(volume, before, key, tag);
  if (!written && wasInAttribute) throw attributeError("Could not update the", volume, written.error());
  Texts local = localTagsLocked(volume.key());
  put(local, key, written ? std::nullopt : tag);
  persistLocked(volume.key(), std::move(local));
}

// The attribute has no room for the new tag. Its old one counts until the new one is on disk.
void SnapshotTagStore::moveToLocalLocked(const VolumeInfo& volume, Texts inAttribute, const std::string& key,
                                         const std::optional<std::string>& tag) {
  Texts local = localTagsLocked(volume.key());
  put(local, key, tag);
  persistLocked(volume.key(), std::move(local));
  inAttribute.erase(key);
  const SysStatus written = writeAttribute(volume, inAttribute);
  // The new one stays below: whether the attribute's went is not known.
  if (!written) throw attributeError("Could not update the", volume, written.error());
}

void SnapshotTagStore::forgetDeleted(const VolumeInfo& volume, Xid xid) {
  const std::string key = StorePayloads::tagKey(xid);
  MutexLock lock(lock_);
  bestEffort([&] {
    Texts tags = readAttribute(volume);
    if (tags.erase(key) != 0) static_cast<void>(writeAttribute(volume, tags));
  });
  bestEffort([&]() NO_THREAD_SAFETY_ANALYSIS {
    loadLocked();
    Texts tags = localTagsLocked(volume.key());
    if (tags.erase(key) != 0) persistLocked(volume.key(), std::move(tags));
  });
}

void SnapshotTagStore::loadLocked() {
  if (localLoaded_) return;
  if (const auto text = readStoreFile(posix_, path_)) localByVolume_ = StorePayloads::decodeTextsByVolume(*text);
  localLoaded_ = true;
}

SnapshotTagStore::Texts SnapshotTagStore::readAttribute(const VolumeInfo& volume) const {
  const auto opened = attributes_.open(volume.mountPoint, volume.key());
  if (!opened) throw attributeError("Could not read", volume, opened.error());
  const auto value = (*opened)->read(attributeName);
  if (value.error() == ENODATA) return {};
  if (!value) throw attributeError("Could not read", volume, value.error());
  return StorePayloads::decodeTexts(*value);
}

SysStatus SnapshotTagStore::writeAttribute(const VolumeInfo& volume, const Texts& tags) const {
  std::optional<std::string> value;
  if (!tags.empty()) value = StorePayloads::encodeTexts(tags);
  return writeVolumeAttribute(attributes_, volume, attributeName, value);
}

SnapshotTagStore::Texts SnapshotTagStore::localTagsLocked(const VolumeUuid& volume) const {
  const auto found = localByVolume_.find(volume);
  return found == localByVolume_.end() ? Texts() : found->second;
}

void SnapshotTagStore::persistLocked(const VolumeUuid& volume, Texts tags) {
  if (tags == localTagsLocked(volume)) return;
  std::map<VolumeUuid, Texts> next = localByVolume_;
  if (tags.empty()) {
    next.erase(volume);
  } else {
    next[volume] = std::move(tags);
  }
  writeStoreFile(posix_, random_, path_, StorePayloads::encodeTextsByVolume(next));
  localByVolume_ = std::move(next);
}

}  // namespace quillmark
