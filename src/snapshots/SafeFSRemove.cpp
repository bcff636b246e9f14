#include <algorithm>
#include <cerrno>
#include <set>

#include "snapshots/SafeFS.h"

namespace quillmark {
namespace {

// A tree is as deep and as wide as a hostile user made it, so that neither the call stack nor descriptors may grow with
// it. A level costs its name and some hundred bytes; what lies past these limits stays where it is.
constexpr std::size_t mostLevels = 250'000;
constexpr std::size_t longestWay = std::size_t{64} << 20;
constexpr std::size_t mostOpenLevels = 48;
// Names that are resolved in one call, within the kernel's limit for a path.
constexpr std::size_t longestStep = 4000;

// The walk through one tree, from its top directory down and back up, taking away what it comes by.
// Invariant: while there are levels the top one is open, so that all others can be found again by their way from there.
class Removal final {
 public:
  Removal(FileWork& work, int parent, std::uint64_t device) : work_(work), parent_(parent), device_(device) {}

  void run(const std::string& name) {
    takeAway(parent_, name);
    while (!levels_.empty()) step();
  }

 private:
  struct Level {
    std::size_t wayEnd = 0;  // of its name in way_
    WorkDescriptor directory = {};
    std::vector<ListedName> names = {};  // read and not yet gone through
    std::size_t nextName = 0;
    std::int64_t position = 0;  // behind the last name gone through
  };

  // The next name of the deepest level, which is open.
  void step() {
    Level& level = levels_.back();
    if (level.nextName == level.names.size() && !readMore(level)) return leave();
    const ListedName listed = std::move(level.names[level.nextName++]);
    level.position = listed.next;
    takeAway(level.directory.get(), listed.name);
  }

  bool readMore(Level& level) {
    SysResult<std::vector<ListedName>> some = work_.readNames(level.directory.get());
    level.nextName = 0;
    level.names = some ? std::move(*some) : std::vector<ListedName>();
    return !level.names.empty();
  }

  void takeAway(int parent, const std::string& name) {
    const SysResult<StatRecord> record = work_.fstatat(parent, name);
    if (!record) return;
    if (record->type != FileType::directory) {
      (void)work_.unlinkat(parent, name);
    } else if (record->device == device_) {
      enter(parent, name);
    }
  }

  // Makes a directory the deepest level.
  void enter(int parent, const std::string& name) {
    if (levels_.size() == mostLevels || way_.size() + name.size() >= longestWay) return;
    const SysResult<int> fd = work_.openBeneath(parent, name);
    // EXDEV is a mount of the same file system.
    if (!fd && fd.error() != EXDEV) (void)work_.rmdirat(parent, name);
    if (!fd) return;
    WorkDescriptor directory(work_, *fd);
    if (!isOurs(directory)) return;
    if (!levels_.empty()) way_ += '/';
    way_ += name;
    levels_.push_back({.wayEnd = way_.size()});
    keepOpen(levels_.size() - 1, std::move(directory));
  }

  // A nested volume has a device number of its own.
  bool isOurs(const WorkDescriptor& directory) {
    const SysResult<StatRecord> record = work_.fstat(directory.get());
    return record && record->device == device_;
  }

  // Back up from the deepest level, which then goes, if it is empty.
  void leave() {
    const std::size_t nameBegin = levels_.size() == 1 ? 0 : levels_[levels_.size() - 2].wayEnd + 1;
    const std::string name = way_.substr(nameBegin);
    dropDeepest();
    if (levels_.empty()) {
      (void)work_.rmdirat(parent_, name);
    } else if (reachDeepest()) {
      (void)work_.rmdirat(levels_.back().directory.get(), name);
    } else {
      // Somebody moved what lies between; it isn't ours to look for.
      while (*open_.rbegin() < levels_.size() - 1) dropDeepest();
    }
  }

  void dropDeepest() {
    open_.erase(levels_.size() - 1);
    levels_.pop_back();
    way_.resize(levels_.empty() ? 0 : levels_.back().wayEnd);
  }

  void keepOpen(std::size_t index, WorkDescriptor directory) {
    levels_[index].directory = std::move(directory);
    open_.insert(index);
    if (open_.size() <= mostOpenLevels) return;
    const auto highestButTop = std::next(open_.begin());
    Level& level = levels_[*highestButTop];
    level.directory.close();
    level.names = {};
    level.nextName = 0;
    open_.erase(highestButTop);
  }

  // Opens the deepest level again if it was closed on the way down. The levels at halving distances on the way there
  // are opened too, for those that are needed next: so n levels cost n log n names to resolve, not their square.
  bool reachDeepest() {
    const std::size_t last = levels_.size() - 1;
    while (*open_.rbegin() < last) {
      const std::size_t above = *open_.rbegin();
      const std::size_t middle = above + (last - above + 1) / 2;
      WorkDescriptor directory = openedFrom(above, middle);
      if (!directory.valid() || !isOurs(directory)) return false;
      if (!work_.seekNames(directory.get(), levels_[middle].position)) return false;
      keepOpen(middle, std::move(directory));
    }
    return true;
  }

  // By as few calls as the length of the way allows.
  WorkDescriptor openedFrom(std::size_t above, std::size_t index) {
    WorkDescriptor reached;
    while (above < index) {
      const std::size_t begin = levels_[above].wayEnd + 1;
      const std::size_t next = std::max(above + 1, lastWithin(above, index, begin + longestStep));
      const int from = reached.valid() ? reached.get() : levels_[above].directory.get();
      const SysResult<int> fd = work_.openBeneath(from, way_.substr(begin, levels_[next].wayEnd - begin));
      if (!fd) return {};
      reached = WorkDescriptor(work_, *fd);
      above = next;
    }
    return reached;
  }

  // The deepest level from `first` to `last` whose way ends before `limit`.
  [[nodiscard]] std::size_t lastWithin(std::size_t first, std::size_t last, std::size_t limit) const {
    const auto begin = levels_.begin() + static_cast<std::ptrdiff_t>(first);
    const auto end = levels_.begin() + static_cast<std::ptrdiff_t>(last) + 1;
    const auto past = std::partition_point(begin, end, [&](const Level& level) { return level.wayEnd < limit; });
    return static_cast<std::size_t>(past - levels_.begin()) - 1;
  }

  FileWork& work_;
  const int parent_;
  const std::uint64_t device_;
  std::string way_;  // the names of all levels, joined by "/"
  std::vector<Level> levels_;
  std::set<std::size_t> open_;  // the levels whose directories are open
};

}  // namespace

void SafeFS::removeTree(const std::string& name, const Directory& parent) const {
  if (!isComponent(name)) return;
  if (const SysResult<StatRecord> record = work_.fstat(parent.fd())) {
    Removal(work_, parent.fd(), record->device).run(name);
  }
}

}  // namespace quillmark
