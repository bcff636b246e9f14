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
  SysStatus confirm() override;

 private:
  BtrfsTree(int root, btrfs::Subvolume subvolume, std::uint64_t lastInode);

  [[nodiscard]] std::unique_ptr<btrfs::TreeSearch> takeSearch() EXCLUDES(mutex_);
  void giveBack(std::unique_ptr<btrfs::TreeSearch> search) EXCLUDES(mutex_);

  const int root_;
  const btrfs::Subvolume subvolume_;
  const std::size_t pieceCount_;
  const std::uint64_t pieceSpan_;  // inode numbers

  NativeMutex mutex_;
  std::vector<std::unique_ptr<btrfs::TreeSearch>> searches_ GUARDED_BY(mutex_);  // whose buffers wait for a piece
};

}  // namespace quillmark::os
