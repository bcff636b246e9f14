// WholeTreeWalk: reads a tree as a whole, in the file system's own order, and puts its names together to paths.
// Ownership: borrows what it is made over.
// Threads:   one run by one thread, which waits for its workers; they share only what nobody changes meanwhile.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/SysResult.h"
#include "history/PieceWorkers.h"
#include "history/ScanCollector.h"
#include "platform/DirectoryReader.h"

namespace quillmark {

class WholeTreeWalk final {
 public:
  WholeTreeWalk(Dispatch& dispatch, DirectoryReader& reader, const ScanRequest& request, ScanCollector& collector);

  // All entries below the root; the errno of whatever stood in the way, ECANCELED for a walk that was to end.
  [[nodiscard]] SysResult<SnapshotIndex::EntryBuckets> run(WholeTree& tree);

 private:
  static constexpr std::size_t none = ~std::size_t{0};
  struct Directory {
    enum class State { unplaced, entered, leftOut };
    // Lie in its piece, which goes when it was handed in.
    const FileFacts* facts = nullptr;
    std::string_view name = {};
    std::uint64_t inode = 0;
    std::size_t parent = none;
    State state = State::unplaced;
    std::string path = {};
  };

  [[nodiscard]] SysStatus read(WholeTree& tree, std::size_t piece);
  void listDirectories();
  [[nodiscard]] SysStatus nameDirectories();
  [[nodiscard]] SysStatus placeDirectories(std::uint64_t rootNumber);
  void place(Directory& directory, ScanCollector::Entries& entries);
  [[nodiscard]] bool countAndGoOn(ScanCollector::Entries& entries);
  [[nodiscard]] SysStatus handIn(std::size_t piece, ScanCollector::Entries& entries);
  [[nodiscard]] std::size_t indexOf(std::uint64_t number) const;

  DirectoryReader& reader_;
  const ScanRequest& request_;
  ScanCollector& collector_;
  PieceWorkers workers_;
  std::vector<TreePiece> pieces_;       // each written by the one worker that reads it
  std::vector<std::uint64_t> numbers_;  // of all directories, ascending
  std::vector<Directory> directories_;  // in the same order
};

}  // namespace quillmark
