// SnapshotScanner: walks one directory tree and gives it as entries. Read-only; never follows a symbolic link, never
// enters a mount or a nested subvolume, never leaves anything open behind.
// Ownership: borrows the platform's facilities.
// Threads:   thread-safe: any number of walks at once. note, warn and progress are called from walking threads.
// Errors:    throws Error: domain Quillmark.SnapshotScanner, or POSIX with the errno that ended the walk.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "history/index/ExclusionRules.h"
#include "history/index/ShardedEntries.h"
#include "platform/dispatch.h"

namespace quillmark {

class DirectoryReader;
class OpenTree;
class ScanStats;

inline constexpr std::string_view snapshotScannerDomain = "Quillmark.SnapshotScanner";

struct ScanRequest {
  std::string root;  // absolute
  bool parallel = true;
  bool lowPriority = false;  // throttles the walking threads' disk work
  QualityOfService qos = QualityOfService::utility;
  std::optional<ExclusionRules> rules;          // absent: nothing is left out, but for our own place at a top level
  std::vector<std::string> baseComponents;      // put in front of every directory's components for the rules
  bool tolerant = true;                         // skip unreadable directories and entries below the root
  std::function<void(std::uint64_t)> progress;  // entries seen so far; from several threads; may be empty
  std::function<bool()> isCancelled;            // asked often, from several threads; may be empty. True ends the walk
                                                // within a second, with ECANCELED
};

class SnapshotScanner final {
 public:
  using Report = std::function<void(const std::string&)>;
  // What the trees may take together, of this scanner and of whoever else has that memory; without, half of the machine's.
  SnapshotScanner(Dispatch& dispatch, DirectoryReader& reader, Report note, Report warn,
                  std::shared_ptr<TreeMemory> memory = nullptr);

  [[nodiscard]] SnapshotIndex::ShardedEntries scan(const ScanRequest& request);
  // Of a tree that is open; the request's root is for texts.
  [[nodiscard]] SnapshotIndex::ShardedEntries scan(const ScanRequest& request, OpenTree& tree);

 private:
  // What a walk brought, with the tree closed again.
  struct Walked {
    SnapshotIndex::EntryBuckets buckets;
    std::uint64_t processed = 1;  // the root
    std::shared_ptr<TreeClaim> claim;
  };
  [[nodiscard]] Walked walk(OpenTree& tree, const ScanRequest& request);
  // Absent when the tree has to be read by its directories; with the reason, if there is more to it than that this tree is
  // of another kind.
  [[nodiscard]] std::optional<Walked> walkAsWhole(OpenTree& tree, const ScanRequest& request, std::string& reason);
  [[nodiscard]] Walked walkDirectories(OpenTree& tree, const ScanRequest& request);
  void report(ScanStats& stats, const std::string& root) const;

  Dispatch& dispatch_;
  DirectoryReader& reader_;
  const Report note_;
  const Report warn_;
  const std::shared_ptr<TreeMemory> memory_;
};

}  // namespace quillmark
