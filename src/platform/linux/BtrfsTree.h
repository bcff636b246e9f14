// BtrfsTree: a read-only subvolume read by the items of its tree, past its directories.
// Ownership: borrows the descriptor of its root directory.
// Threads:   thread-safe. Needs CAP_SYS_ADMIN.
#pragma once

#include "platform/DirectoryReader.h"
#include "platform/linux/BtrfsCalls.h"
#include "platform/linux/Threads.h"
#include "platform/linux/TreeSearch.h"

namespace quillmark::os {

class BtrfsTree final : public WholeTree {
 public:
  // ENOTSUP for a subvolume that can be written to. One that was written to, and so may have contents that are on their
  // way to the disk, is synced, which may take its time.
  [[nodiscard]] static SysResult<std::unique_ptr<WholeTree>> open(int root);

  std::uint64_t rootNumber() const override { return btrfs::rootInode; }
  std::size_t pieceCount() const override { return pieceCount_; }
  SysResult<TreePiece> read(std::size_t piece, FunctionRef<bool()> shouldStop) override;
  SysResult<TreePiece> finish(FunctionRef<bool()> shouldStop) override;

 private:
  // Names that were met of what lies in a directory.
  struct MetNames {
    std::uint64_t directory = 0;
    std::uint64_t bytes = 0;
  };
  // A directory whose list of entries wasn't read to its end.
  struct CutList {
    btrfs::TreeKey rest;
    std::uint64_t size = 0;  // of the directory, in which each name's bytes count twice
  };
  class PieceBuilder;

  BtrfsTree(int root, btrfs::Subvolume subvolume, std::uint64_t lastInode);

  [[nodiscard]] SysStatus readItems(const btrfs::TreeSearch::Step& first, btrfs::TreeKey last, PieceBuilder& builder,
                                    FunctionRef<bool()> shouldStop,
                                    FunctionRef<btrfs::TreeSearch::Step(const btrfs::TreeKey&)> goOn);
  [[nodiscard]] std::unique_ptr<btrfs::TreeSearch> takeSearch() EXCLUDES(mutex_);
  void giveBack(std::unique_ptr<btrfs::TreeSearch> search) EXCLUDES(mutex_);
  void note(const std::vector<MetNames>& met, const std::vector<CutList>& lists) EXCLUDES(mutex_);
  // Of directories in which there is more than what was met.
  [[nodiscard]] std::vector<CutList> neededLists() EXCLUDES(mutex_);

  const int root_;
  const btrfs::Subvolume subvolume_;
  const std::size_t pieceCount_;
  const std::uint64_t pieceSpan_;  // inode numbers

  NativeMutex mutex_;
  std::vector<std::unique_ptr<btrfs::TreeSearch>> searches_ GUARDED_BY(mutex_);  // whose buffers wait for a piece
  std::vector<MetNames> met_ GUARDED_BY(mutex_);
  std::vector<CutList> cutLists_ GUARDED_BY(mutex_);
};

}  // namespace quillmark::os
