#include "snapshots/SnapshotIdentity.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <unordered_map>

#include "base/Text.h"
#include "platform/dispatch.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

constexpr double diskutilDeadline = 15;
constexpr std::size_t diskutilOutputLimit = 8'388'608;
constexpr int mostPasses = 3;

Error listFailure(std::string message) {
  return QuillmarkError::make(QuillmarkErrorCode::snapshotListFailed, std::move(message));
}

std::string quotedList(const std::vector<std::string>& names) {
  std::vector<std::string> quoted;
  for (const std::string& name : names) quoted.push_back("\"" + name + "\"");
  return "[" + join(quoted, ", ") + "]";
}

// The names found on one side only; both empty when the two listings agree.
struct Difference {
  std::vector<std::string> kernelOnly;
  std::vector<std::string> diskutilOnly;
};

Difference compare(const std::vector<RawSnapshotEntry>& entries, const DiskutilSnapshotCatalog& catalog) {
  std::set<std::string> names;
  for (const RawSnapshotEntry& entry : entries) names.insert(entry.name);
  Difference difference;
  for (const std::string& name : names) {
    if (!catalog.xidByName.contains(name)) difference.kernelOnly.push_back(name);
  }
  for (const auto& [name, xid] : catalog.xidByName) {
    if (!names.contains(name)) difference.diskutilOnly.push_back(name);
  }
  return difference;
}

std::vector<Xid> xidsFrom(const std::vector<RawSnapshotEntry>& entries, const DiskutilSnapshotCatalog& catalog) {
  std::vector<Xid> xids;
  xids.reserve(entries.size());
  for (const RawSnapshotEntry& entry : entries) {
    const auto found = catalog.xidByName.find(entry.name);
    if (found == catalog.xidByName.end() || found->second.value == 0) {
      throw listFailure("diskutil omitted a valid XID for snapshot " + entry.name);
    }
    xids.push_back(found->second);
  }
  return xids;
}

bool areFileIds(const std::vector<RawSnapshotEntry>& entries, const std::vector<Xid>& xids) {
  return std::equal(entries.begin(), entries.end(), xids.begin(), xids.end(),
                    [](const RawSnapshotEntry& entry, Xid xid) { return entry.fileID == xid.value; });
}

std::map<std::uint64_t, Xid> migrationMap(const std::vector<RawSnapshotEntry>& entries, const std::vector<Xid>& xids) {
  std::map<std::uint64_t, Xid> map;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (entries[i].fileID == xids[i].value) continue;
    const auto [known, isNew] = map.emplace(entries[i].fileID, xids[i]);
    if (!isNew && known->second != xids[i]) {
      throw listFailure(
          fmt::format("Snapshot roots reused file ID {}; refusing an ambiguous XID migration", entries[i].fileID));
    }
  }
  return map;
}

}  // namespace

SnapshotIdentity::SnapshotIdentity(Dispatch& dispatch, Processes& processes, PropertyLists& propertyLists, Posix& posix,
                                   Random& random, PlatformLog& log, const HostPaths& paths, FileIds fileIds)
    : propertyLists_(propertyLists), diskutil_(paths.diskutil), fileIds_(fileIds), runner_(dispatch, processes),
      cache_(dispatch, posix, random, log, paths), resolutionLock_(dispatch) {}

std::vector<SnapshotRecord> SnapshotIdentity::resolve(const VolumeInfo& volume, ListKernel listKernel,
                                                      const SnapshotIdentityMigration& migration) {
  const Resolved resolved = resolveIdentities(volume, listKernel);
  const std::map<std::uint64_t, Xid> moved = migrationMap(resolved.entries, resolved.xids);
  if (migration) migration(volume, moved);
  std::vector<SnapshotRecord> records;
  records.reserve(resolved.entries.size());
  for (std::size_t i = 0; i < resolved.entries.size(); ++i) {
    SnapshotRecord& record = records.emplace_back();
    record.name = resolved.entries[i].name;
    record.xid = resolved.xids[i];
    record.createdAt = resolved.entries[i].created;
  }
  return records;
}

SnapshotIdentity::Resolved SnapshotIdentity::resolveIdentities(const VolumeInfo& volume, ListKernel listKernel) {
  std::vector<RawSnapshotEntry> entries = listKernel();
  for (int pass = 1;; ++pass) {
    if (auto xids = cache_.lookup(volume.uuid, entries)) return {std::move(entries), std::move(*xids)};
    Difference difference;
    {
      MutexLock lock(resolutionLock_);
      if (auto xids = cache_.lookup(volume.uuid, entries)) return {std::move(entries), std::move(*xids)};
      const DiskutilSnapshotCatalog catalog = runDiskutil(volume.bsdName);
      difference = compare(entries, catalog);
      if (difference.kernelOnly.empty() && difference.diskutilOnly.empty()) {
        std::vector<Xid> xids = xidsFrom(entries, catalog);
        if (fileIds_ == FileIds::areOfTheirOwn || areFileIds(entries, xids)) {
          cache_.store(volume.uuid, entries, xids);
          return {std::move(entries), std::move(xids)};
        }
      }
    }
    if (pass == mostPasses) {
      throw listFailure(
          fmt::format("Snapshot inventory changed while resolving 64-bit XIDs (kernel-only={}, diskutil-only={})",
                      quotedList(difference.kernelOnly), quotedList(difference.diskutilOnly)));
    }
    entries = listKernel();
  }
}

DiskutilSnapshotCatalog SnapshotIdentity::runDiskutil(const std::string& bsdName) {
  const BoundedProcessRunner::Output output = runner_.run(diskutil_, {"apfs", "listSnapshots", "-plist", bsdName},
                                                          std::nullopt, diskutilDeadline, diskutilOutputLimit);
  if (output.timedOut) throw listFailure("diskutil timed out while resolving snapshot XIDs on " + bsdName);
  if (output.status != 0) {
    const std::string said = isValidUtf8(output.standardError) ? trimWhitespaceAndNewlines(output.standardError) : "";
    throw listFailure(said.empty() ? fmt::format("diskutil could not resolve snapshot XIDs (status {})", output.status)
                                   : "diskutil could not resolve snapshot XIDs: " + said);
  }
  try {
    return DiskutilSnapshotCatalog::parse(propertyLists_, output.standardOutput);
  } catch (const Error& error) {
    throw listFailure(error.description());
  }
}

std::vector<SnapshotRecord> matchReferences(const VolumeInfo& volume, const std::vector<SnapshotRecord>& records,
                                            const std::vector<SnapshotReference>& references) {
  std::unordered_map<Xid, const SnapshotRecord*> byXid;
  for (const SnapshotRecord& record : records) byXid.emplace(record.xid, &record);
  std::vector<SnapshotRecord> matched;
  for (const SnapshotReference& reference : references) {
    const auto found = byXid.find(reference.xid);
    if (found == byXid.end()) {
      throw QuillmarkError::make(QuillmarkErrorCode::snapshotNotFound,
                                 fmt::format("Snapshot {} no longer exists on {}", reference.xid.value, volume.name));
    }
    if (found->second->name != reference.name) {
      throw QuillmarkError::make(QuillmarkErrorCode::snapshotNotFound,
                                 fmt::format("Snapshot {} on {} is \"{}\", not \"{}\"", reference.xid.value,
                                             volume.name, found->second->name, reference.name));
    }
    matched.push_back(*found->second);
  }
  return matched;
}

}  // namespace quillmark
