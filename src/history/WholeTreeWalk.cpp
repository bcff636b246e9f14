#include "history/WholeTreeWalk.h"

#include <algorithm>
#include <cerrno>

namespace quillmark {
namespace {

// As many reads keep a disk busy; more bring nothing.
constexpr unsigned readsInFlight = 8;
// Between two looks at whether the walk is to end.
constexpr std::size_t linksPerLook = 4096;

// A piece that took long, and most of that time was waited for.
bool comesFromDisk(const TreePiece& piece) {
  return piece.took > std::chrono::milliseconds(2) && piece.took > 2 * piece.worked;
}

std::uint64_t bytesOf(const TreePiece& piece) {
  return piece.objects.capacity() * sizeof(FileFacts) + piece.links.capacity() * sizeof(TreePiece::Link) +
         piece.directories.capacity() * sizeof(TreePiece::Directory) + piece.names.capacity();
}

bool isEntered(const FileFacts& facts) { return facts.type == FileType::directory && !facts.isPlaceholder; }

}  // namespace

WholeTreeWalk::WholeTreeWalk(Dispatch& dispatch, DirectoryReader& reader, const ScanRequest& request,
                             ScanCollector& collector)
    : reader_(reader), request_(request), collector_(collector), workers_(dispatch, reader, request) {}

SysResult<SnapshotIndex::EntryBuckets> WholeTreeWalk::run(WholeTree& tree) {
  const unsigned processors = request_.parallel ? std::max(reader_.processorCount(), 2U) : 1;
  pieces_.resize(tree.pieceCount());
  const SysStatus status = workers_.run(pieces_.size(), processors,
                                        [&](std::size_t piece, ScanCollector::Entries&) { return read(tree, piece); });
  if (!status) return Errno{status.error()};
  auto rest = tree.finish([&] { return collector_.isCancelled(); });
  if (!rest) return Errno{rest.error()};
  collector_.countAhead(rest->links.size(), bytesOf(*rest));
  pieces_.push_back(std::move(*rest));
  listDirectories();
  if (collector_.isTooLarge()) return Errno{ECANCELED};
  if (const SysStatus named = nameDirectories(); !named) return Errno{named.error()};
  if (const SysStatus placed = placeDirectories(tree.rootNumber()); !placed) return Errno{placed.error()};
  const SysStatus handedIn =
      workers_.run(pieces_.size(), processors,
                   [&](std::size_t piece, ScanCollector::Entries& entries) { return handIn(piece, entries); });
  if (!handedIn) return Errno{handedIn.error()};
  return workers_.takeEntries();
}

SysStatus WholeTreeWalk::read(WholeTree& tree, std::size_t piece) {
  if (collector_.isCancelled()) return Errno{ECANCELED};
  auto read = tree.read(piece, [&] { return collector_.isCancelled(); });
  if (!read) return Errno{read.error()};
  if (comesFromDisk(*read)) workers_.widen(readsInFlight);
  collector_.countAhead(read->links.size(), bytesOf(*read));
  pieces_[piece] = std::move(*read);
  return {};
}

void WholeTreeWalk::listDirectories() {
  std::size_t count = 0;
  for (const TreePiece& piece : pieces_) count += piece.directories.size();
  if (!collector_.working().take(count * (sizeof(std::uint64_t) + sizeof(Directory)))) return;
  numbers_.reserve(count);
  directories_.reserve(count);
  for (const TreePiece& piece : pieces_) {
    for (const TreePiece::Directory& directory : piece.directories) {
      numbers_.push_back(directory.number);
      const FileFacts& facts = piece.objects[directory.object];
      directories_.push_back({.facts = &facts, .inode = facts.inode});
    }
  }
}

SysStatus WholeTreeWalk::nameDirectories() {
  std::size_t first = 0;
  for (const TreePiece& piece : pieces_) {
    std::size_t at = 0;
    for (const TreePiece::Link& link : piece.links) {
      while (at < piece.directories.size() && piece.directories[at].object < link.object) ++at;
      if (at == piece.directories.size()) break;
      if (piece.directories[at].object != link.object) continue;
      Directory& directory = directories_[first + at];
      // A directory has one name.
      if (directory.parent != none) return Errno{EBADMSG};
      directory.name = piece.nameOf(link);
      directory.parent = indexOf(link.parent);
      if (directory.parent == none) return Errno{EBADMSG};
    }
    first += piece.directories.size();
  }
  return {};
}

// Parents before their children, each directory once: a chain of unplaced ones is followed up and placed from the top.
SysStatus WholeTreeWalk::placeDirectories(std::uint64_t rootNumber) {
  const std::size_t root = indexOf(rootNumber);
  if (root == none || directories_[root].parent != none) return Errno{EBADMSG};
  directories_[root].state = Directory::State::entered;
  return workers_.run(1, 1, [&](std::size_t, ScanCollector::Entries& entries) -> SysStatus {
    std::vector<Directory*> chain;
    std::size_t placed = 0;
    for (Directory& directory : directories_) {
      for (Directory* at = &directory; at->state == Directory::State::unplaced;) {
        chain.push_back(at);
        if (at->parent == none) break;
        at = &directories_[at->parent];
        if (chain.size() > directories_.size()) return Errno{EBADMSG};
      }
      for (; !chain.empty(); chain.pop_back()) {
        if (placed++ % linksPerLook == 0 && !countAndGoOn(entries)) return Errno{ECANCELED};
        place(*chain.back(), entries);
      }
    }
    collector_.count(entries);
    return {};
  });
}

void WholeTreeWalk::place(Directory& directory, ScanCollector::Entries& entries) {
  directory.state = Directory::State::leftOut;
  // One without a name was removed while somebody still had it open.
  if (directory.parent == none) return;
  const Directory& parent = directories_[directory.parent];
  if (parent.state != Directory::State::entered) return;
  if (!collector_.take(entries, {parent.path, parent.inode}, directory.name, *directory.facts)) return;
  directory.state = Directory::State::entered;
  directory.path.reserve(parent.path.size() + 1 + directory.name.size());
  directory.path.append(parent.path).append(1, '/').append(directory.name);
  collector_.working().take(directory.path.capacity());
}

bool WholeTreeWalk::countAndGoOn(ScanCollector::Entries& entries) {
  collector_.count(entries);
  return !collector_.isCancelled();
}

SysStatus WholeTreeWalk::handIn(std::size_t index, ScanCollector::Entries& entries) {
  const TreePiece piece = std::move(pieces_[index]);
  std::uint64_t number = 0;
  const Directory* parent = nullptr;
  ScanParent handed({}, 0);
  for (std::size_t i = 0; i < piece.links.size(); ++i) {
    if (i % linksPerLook == 0 && !countAndGoOn(entries)) return Errno{ECANCELED};
    const TreePiece::Link& link = piece.links[i];
    const FileFacts& facts = piece.objects[link.object];
    if (isEntered(facts)) continue;
    // Neighbours mostly lie in one directory.
    if (!parent || number != link.parent) {
      const std::size_t found = indexOf(link.parent);
      if (found == none) return Errno{EBADMSG};
      number = link.parent;
      parent = &directories_[found];
      handed = ScanParent(parent->path, parent->inode);
    }
    if (parent->state != Directory::State::entered) continue;
    (void)collector_.take(entries, handed, piece.nameOf(link), facts);
  }
  collector_.count(entries);
  collector_.working().giveBack(bytesOf(piece));
  return {};
}

std::size_t WholeTreeWalk::indexOf(std::uint64_t number) const {
  const auto found = std::lower_bound(numbers_.begin(), numbers_.end(), number);
  return found == numbers_.end() || *found != number ? none : static_cast<std::size_t>(found - numbers_.begin());
}

}  // namespace quillmark
