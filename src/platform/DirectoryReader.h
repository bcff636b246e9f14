// DirectoryReader: reads directory trees, one directory after the other or, where the file system can, as a whole.
// Names and paths are text (platform/NameText.h). A path within a tree is "" for its root and else "/a/b". No call follows
// a symbolic link, enters a mount or a nested volume, or fetches content from elsewhere.
//
//   auto tree = reader.openTree("/Volumes/Data");
//   auto directory = (*tree)->open("/a/b");
//   DirectoryRecords records;
//   while (*(*directory)->readRecords(records)) { ... }
//
// Ownership: an open object keeps what it needs open until it goes; directories go before their tree.
// Threads:   DirectoryReader, OpenTree and WholeTree are thread-safe; an OpenDirectory or FileLayout serves one thread.
// Errors:    errno. EINTR reaches the caller.
#pragma once

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/FunctionRef.h"
#include "base/SysResult.h"
#include "platform/FileFacts.h"

namespace quillmark {

// What was read of one directory. Names lie in one block.
class DirectoryRecords final {
 public:
  struct Record {
    std::string_view name;  // until the records change
    FileFacts facts;
  };

  void clear() { names_.clear(), items_.clear(); }
  void add(std::string_view name, const FileFacts& facts) {
    items_.push_back({names_.size(), name.size(), facts});
    names_ += name;
  }
  [[nodiscard]] std::size_t size() const { return items_.size(); }
  // What they take; clearing gives nothing back.
  [[nodiscard]] std::size_t memoryBytes() const { return names_.capacity() + items_.capacity() * sizeof(Item); }
  [[nodiscard]] Record operator[](std::size_t index) const {
    const Item& item = items_[index];
    return {std::string_view(names_).substr(item.offset, item.length), item.facts};
  }
  [[nodiscard]] FileFacts& factsOf(std::size_t index) { return items_[index].facts; }

 private:
  struct Item {
    std::size_t offset, length;
    FileFacts facts;
  };
  std::string names_;
  std::vector<Item> items_;
};

// Where a file's bytes lie on the device.
class FileLayout {
 public:
  struct Run {
    std::int64_t length = 0;
    std::uint64_t device = 0;  // offset on the device
  };
  virtual ~FileLayout() = default;
  [[nodiscard]] virtual std::int64_t size() const = 0;
  [[nodiscard]] virtual std::int64_t changedNS() const = 0;
  // What lies in one piece from the offset on, at most `length` of it.
  [[nodiscard]] virtual SysResult<Run> runAt(std::int64_t offset, std::int64_t length) = 0;
};

class OpenDirectory {
 public:
  virtual ~OpenDirectory() = default;
  // Adds some records, at most a hundred; false, and nothing added, at the end. What was added before a failure
  // stands, and another call goes on there. EBADMSG for records that make no sense.
  [[nodiscard]] virtual SysResult<bool> readRecords(DirectoryRecords& into) = 0;
  // The next names without "." and ".."; none at the end.
  [[nodiscard]] virtual SysResult<std::vector<std::string>> readNames() = 0;
  [[nodiscard]] virtual SysResult<FileFacts> lstat(const std::string& name) = 0;
  // The file system's count of writes, asked for one file whose facts had none. ENOTSUP when there is none.
  [[nodiscard]] virtual SysResult<std::uint64_t> generationOf(const std::string& name) = 0;
  // Opens a regular file.
  [[nodiscard]] virtual SysResult<std::unique_ptr<FileLayout>> layoutOf(const std::string& name) = 0;
};

// A part of a whole tree, in the file system's own order.
struct TreePiece {
  struct Directory {
    std::uint64_t number = 0;  // by which links name it
    std::uint32_t object = 0;
  };
  // One name of an object.
  struct Link {
    std::uint64_t parent = 0;  // a directory's number, of any piece
    std::uint32_t object = 0;
    std::uint32_t nameOffset = 0;
    std::uint16_t nameLength = 0;
  };
  std::vector<FileFacts> objects;
  std::vector<Directory> directories;  // ascending by number, all above those of the pieces before
  std::vector<Link> links;             // ascending by object
  std::string names;
  std::chrono::nanoseconds took{};    // on the clock
  std::chrono::nanoseconds worked{};  // of that on a processor; the rest was spent waiting

  [[nodiscard]] std::string_view nameOf(const Link& link) const {
    return std::string_view(names).substr(link.nameOffset, link.nameLength);
  }
};

// A tree that nobody can change, read past its directories.
class WholeTree {
 public:
  virtual ~WholeTree() = default;
  [[nodiscard]] virtual std::uint64_t rootNumber() const = 0;
  [[nodiscard]] virtual std::size_t pieceCount() const = 0;
  // ECANCELED once shouldStop, asked often, says so. EBADMSG for a tree that makes no sense.
  [[nodiscard]] virtual SysResult<TreePiece> read(std::size_t piece, FunctionRef<bool()> shouldStop) = 0;
  // After the last piece: what no piece has, as one more. Fails as read() does, and unless all are of one unchanged tree.
  [[nodiscard]] virtual SysResult<TreePiece> finish(FunctionRef<bool()> shouldStop) = 0;
};

class OpenTree {
 public:
  virtual ~OpenTree() = default;
  [[nodiscard]] virtual const FileFacts& root() const = 0;
  // The name in the root of what is the service's own and no part of the tree; empty when there is none.
  [[nodiscard]] virtual const std::string& ownPlace() const = 0;
  // Of a root that is a regular file.
  [[nodiscard]] virtual SysResult<std::unique_ptr<FileLayout>> rootLayout() = 0;
  // ENOTSUP for a tree that can be read by its directories alone.
  [[nodiscard]] virtual SysResult<std::unique_ptr<WholeTree>> openWhole() = 0;
  [[nodiscard]] virtual SysResult<std::unique_ptr<OpenDirectory>> open(const std::string& path) = 0;
  // The same for those who read names only.
  [[nodiscard]] virtual SysResult<std::unique_ptr<OpenDirectory>> opendir(const std::string& path) = 0;
  [[nodiscard]] virtual SysResult<bool> isDataless(const std::string& path) = 0;
};

// While it lives, its thread's disk work comes after everybody else's.
class LowPriority {
 public:
  virtual ~LowPriority() = default;
};

class DirectoryReader {
 public:
  virtual ~DirectoryReader() = default;
  // Of any kind of file; fails when its facts can't be had, not when it is a directory that can't be read.
  [[nodiscard]] virtual SysResult<std::unique_ptr<OpenTree>> openTree(const std::string& root) = 0;
  // The same of the item that a descriptor names, whatever its path leads to by now. The descriptor stays the caller's;
  // one that reads nothing suffices.
  [[nodiscard]] virtual SysResult<std::unique_ptr<OpenTree>> openItem(int fd);
  [[nodiscard]] virtual unsigned processorCount() = 0;
  // What the machine has, in bytes.
  [[nodiscard]] virtual std::uint64_t memorySize() { return ~std::uint64_t{0}; }
  // Of the calling thread, on which it has to end.
  [[nodiscard]] virtual std::unique_ptr<LowPriority> lowerPriority() = 0;
};

inline SysResult<std::unique_ptr<OpenTree>> DirectoryReader::openItem(int) { return Errno{ENOTSUP}; }

}  // namespace quillmark
