#include "history/ScanCollector.h"

#include <algorithm>
#include <utility>

namespace quillmark {
namespace {

using SnapshotIndex::EntryType;
using SnapshotIndex::Facts;

constexpr std::uint64_t progressStep = 5'000;
// Of an entry beside its path.
constexpr std::uint64_t entryBytes = 64;

EntryType typeOf(FileType type) {
  switch (type) {
    case FileType::regular: return EntryType::file;
    case FileType::directory: return EntryType::directory;
    case FileType::symlink: return EntryType::symlink;
    case FileType::other: return EntryType::other;
  }
  return EntryType::other;
}

// Of what begins another tree only the place is known: it is told from others by that (FNV-1a).
std::uint64_t placeIdentity(std::uint64_t parent, std::string_view name) {
  constexpr std::uint64_t prime = 0x100000001b3;
  std::uint64_t hash = (0xcbf29ce484222325 ^ parent) * prime;
  for (const char byte : name) hash = (hash ^ static_cast<unsigned char>(byte)) * prime;
  return hash;
}

Facts entryOf(const FileFacts& facts) {
  const bool isFile = facts.type == FileType::regular;
  return {.type = typeOf(facts.type),
          .inode = facts.inode,
          .parentInode = 0,
          .size = facts.type == FileType::directory ? 0 : facts.size,
          .mtimeNS = facts.mtimeNS,
          .metaBits = SnapshotIndex::metaBits(facts.mode, facts.uid, facts.gid, facts.flags),
          .generation = isFile ? static_cast<std::int64_t>(facts.generation) : 0};
}

void addComponents(std::vector<std::string>& components, std::string_view path) {
  while (!path.empty()) {
    path.remove_prefix(1);
    const std::size_t length = std::min(path.find('/'), path.size());
    components.emplace_back(path.substr(0, length));
    path.remove_prefix(length);
  }
}

}  // namespace

void ScanCollector::takeRoot(SnapshotIndex::EntryBuckets& into, const FileFacts& facts) {
  append(into, SnapshotIndex::EntryView{entryOf(facts), "/"});
}

bool ScanCollector::isExcluded(std::string_view parent, std::string_view name) const {
  if (!request_.rules || (request_.rules->names.empty() && request_.rules->paths.empty())) return false;
  std::vector<std::string> components;
  if (!request_.rules->paths.empty()) {
    components = request_.baseComponents;
    addComponents(components, parent);
    components.emplace_back(name);
  }
  return isExcludedDirectory(name, components, *request_.rules);
}

bool ScanCollector::take(Entries& into, const ScanParent& parent, std::string_view name, const FileFacts& facts) {
  if (parent.path.empty() && name == ownPlace_) return false;
  Facts entry = entryOf(facts);
  if (facts.type != FileType::regular) entry.size = 0;
  if (facts.isPlaceholder) entry.inode = placeIdentity(parent.inode, name);
  entry.parentInode = parent.inode;
  into.buckets[parent.shard].append(parent.path, name, entry);
  ++into.uncounted;
  into.uncountedBytes += entryBytes + parent.path.size() + name.size();
  if (facts.type != FileType::directory || facts.isPlaceholder || isExcluded(parent.path, name)) return false;
  if (parent.path.size() + 1 + name.size() <= longestPath) return true;
  stats_.addDeniedDirectory(request_.root + std::string(parent.path) + "/" + std::string(name));
  return false;
}

void ScanCollector::count(Entries& entries) {
  const std::uint64_t before = processed_.fetch_add(entries.uncounted);
  const std::uint64_t after = before + std::exchange(entries.uncounted, 0);
  claim_->take(std::exchange(entries.uncountedBytes, 0));
  if (after > ahead_) tell(before, after);
}

void ScanCollector::countAhead(std::uint64_t entries, std::uint64_t bytes) {
  working_.take(bytes);
  const std::uint64_t before = ahead_.fetch_add(entries);
  tell(before, before + entries);
}

void ScanCollector::tell(std::uint64_t before, std::uint64_t after) const {
  if (request_.progress && before / progressStep != after / progressStep) request_.progress(after);
}

}  // namespace quillmark
