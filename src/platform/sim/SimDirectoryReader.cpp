#include "platform/sim/SimDirectoryReader.h"

#include <algorithm>
#include <cerrno>

namespace quillmark::sim {
namespace {

// So that a directory of a few entries takes several calls.
constexpr std::size_t recordsPerCall = 3;
constexpr std::size_t pieces = 3;

}  // namespace

class SimDirectoryReader::Layout final : public FileLayout {
 public:
  Layout(SimDirectoryReader& reader, SimLayout script) : opened_(reader), script_(std::move(script)) {}

  std::int64_t size() const override { return script_.size; }
  std::int64_t changedNS() const override { return script_.changedNS; }
  SysResult<Run> runAt(std::int64_t, std::int64_t) override {
    if (next_ == script_.runs.size()) return Errno{script_.error == 0 ? EIO : script_.error};
    return script_.runs[next_++];
  }

 private:
  const Opened opened_;
  const SimLayout script_;
  std::size_t next_ = 0;
};

class SimDirectoryReader::Directory final : public OpenDirectory {
 public:
  Directory(SimDirectoryReader& reader, std::string path, SimTree::Children children)
      : reader_(reader), opened_(reader), path_(std::move(path)), children_(std::move(children)),
        next_(children_.begin()) {}

  SysResult<bool> readRecords(DirectoryRecords& into) override {
    if (const SysStatus begun = reader_.begin(DirectoryCall::readRecords, path_); !begun) return Errno{begun.error()};
    if (next_ == children_.end()) return false;
    for (std::size_t i = 0; i < recordsPerCall && next_ != children_.end(); ++i, ++next_) {
      into.add(next_->first, next_->second);
    }
    return true;
  }

  SysResult<std::vector<std::string>> readNames() override {
    if (const SysStatus begun = reader_.begin(DirectoryCall::readNames, path_); !begun) return Errno{begun.error()};
    std::vector<std::string> names;
    for (; names.size() < recordsPerCall && next_ != children_.end(); ++next_) names.push_back(next_->first);
    return names;
  }

  SysResult<FileFacts> lstat(const std::string& name) override {
    if (const SysStatus begun = reader_.begin(DirectoryCall::lstat, childPath(name)); !begun) {
      return Errno{begun.error()};
    }
    const auto found = children_.find(name);
    if (found == children_.end()) return Errno{ENOENT};
    return found->second;
  }

  SysResult<std::uint64_t> generationOf(const std::string& name) override {
    if (const SysStatus begun = reader_.begin(DirectoryCall::generationOf, childPath(name)); !begun) {
      return Errno{begun.error()};
    }
    const auto generation = reader_.generationAt(childPath(name));
    if (!generation) return Errno{ENOTSUP};
    return *generation;
  }

  SysResult<std::unique_ptr<FileLayout>> layoutOf(const std::string& name) override {
    if (const SysStatus begun = reader_.begin(DirectoryCall::layoutOf, childPath(name)); !begun) {
      return Errno{begun.error()};
    }
    auto layout = reader_.layoutAt(childPath(name));
    if (!layout) return Errno{EACCES};
    return std::unique_ptr<FileLayout>(std::make_unique<Layout>(reader_, std::move(*layout)));
  }

 private:
  [[nodiscard]] std::string childPath(const std::string& name) const { return path_ + "/" + name; }

  SimDirectoryReader& reader_;
  const Opened opened_;
  const std::string path_;  // on the machine
  const SimTree::Children children_;
  SimTree::Children::const_iterator next_;
};

// Objects by inode, with all their names, as a file system's own order has them.
class SimDirectoryReader::Whole final : public WholeTree {
 public:
  Whole(SimDirectoryReader& reader, std::string path, const SimTree& tree)
      : reader_(reader), opened_(reader), path_(std::move(path)), rootNumber_(tree.find("")->inode) {
    objects_[rootNumber_].facts = *tree.find("");
    for (const auto& [directory, children] : tree.directories()) {
      for (const auto& [name, facts] : children) {
        Object& object = objects_[facts.inode];
        object.facts = facts;
        object.names.push_back({tree.find(directory)->inode, name});
      }
    }
  }

  std::uint64_t rootNumber() const override { return rootNumber_; }
  std::size_t pieceCount() const override { return pieces; }

  SysResult<TreePiece> read(std::size_t index, FunctionRef<bool()> shouldStop) override {
    if (const SysStatus begun = reader_.begin(DirectoryCall::readPiece, path_); !begun) return Errno{begun.error()};
    const std::size_t size = (objects_.size() + pieces - 1) / pieces;
    auto object = objects_.begin();
    std::advance(object, static_cast<std::ptrdiff_t>(std::min(index * size, objects_.size())));
    TreePiece piece;
    piece.took = reader_.settings().waited;
    for (std::size_t i = 0; i < size && object != objects_.end(); ++i, ++object) {
      if (shouldStop()) return Errno{ECANCELED};
      if (!object->second.facts.isPlaceholder) add(piece, object->first, object->second);
    }
    return piece;
  }

  SysResult<TreePiece> finish(FunctionRef<bool()>) override {
    if (const SysStatus begun = reader_.begin(DirectoryCall::finish, path_); !begun) return Errno{begun.error()};
    TreePiece piece;
    for (const auto& [number, object] : objects_) {
      if (object.facts.isPlaceholder) add(piece, number, object);
    }
    return piece;
  }

 private:
  struct Name {
    std::uint64_t parent;
    std::string name;
  };
  struct Object {
    FileFacts facts;
    std::vector<Name> names;
  };

  static void add(TreePiece& piece, std::uint64_t number, const Object& object) {
    const auto index = static_cast<std::uint32_t>(piece.objects.size());
    piece.objects.push_back(object.facts);
    const bool isEntered = object.facts.type == FileType::directory && !object.facts.isPlaceholder;
    if (isEntered) piece.directories.push_back({number, index});
    for (const Name& name : object.names) {
      piece.links.push_back({name.parent, index, static_cast<std::uint32_t>(piece.names.size()),
                             static_cast<std::uint16_t>(name.name.size())});
      piece.names += name.name;
    }
  }

  SimDirectoryReader& reader_;
  const Opened opened_;
  const std::string path_;
  const std::uint64_t rootNumber_;
  std::map<std::uint64_t, Object> objects_;
};

class SimDirectoryReader::Tree final : public OpenTree {
 public:
  Tree(SimDirectoryReader& reader, std::string path, SimVolumes::PlacedTree placed)
      : reader_(reader), opened_(reader), path_(std::move(path)), placed_(std::move(placed)),
        root_(*placed_.tree.find(placed_.path)), ownPlace_(placed_.path.empty() ? reader.settings().ownPlace : "") {}

  const FileFacts& root() const override { return root_; }
  const std::string& ownPlace() const override { return ownPlace_; }

  SysResult<std::unique_ptr<FileLayout>> rootLayout() override {
    if (const SysStatus begun = reader_.begin(DirectoryCall::layoutOf, path_); !begun) return Errno{begun.error()};
    auto layout = reader_.layoutAt(path_);
    if (!layout) return Errno{EACCES};
    return std::unique_ptr<FileLayout>(std::make_unique<Layout>(reader_, std::move(*layout)));
  }

  SysResult<std::unique_ptr<WholeTree>> openWhole() override {
    if (const SysStatus begun = reader_.begin(DirectoryCall::openWhole, path_); !begun) return Errno{begun.error()};
    if (!placed_.isSnapshot || !placed_.path.empty() || !reader_.settings().offersWhole) return Errno{ENOTSUP};
    return std::unique_ptr<WholeTree>(std::make_unique<Whole>(reader_, path_, placed_.tree));
  }

  SysResult<std::unique_ptr<OpenDirectory>> open(const std::string& path) override {
    return open(DirectoryCall::open, path);
  }
  SysResult<std::unique_ptr<OpenDirectory>> opendir(const std::string& path) override {
    return open(DirectoryCall::opendir, path);
  }

  SysResult<bool> isDataless(const std::string& path) override {
    if (const SysStatus begun = reader_.begin(DirectoryCall::isDataless, path_ + path); !begun) {
      return Errno{begun.error()};
    }
    const FileFacts* facts = placed_.tree.find(placed_.path + path);
    if (!facts) return Errno{ENOENT};
    return facts->isDataless;
  }

 private:
  SysResult<std::unique_ptr<OpenDirectory>> open(DirectoryCall call, const std::string& path) {
    if (const SysStatus begun = reader_.begin(call, path_ + path); !begun) return Errno{begun.error()};
    const SimTree::Children* children = placed_.tree.children(placed_.path + path);
    if (!children) return Errno{ENOENT};
    return std::unique_ptr<OpenDirectory>(std::make_unique<Directory>(reader_, path_ + path, *children));
  }

  SimDirectoryReader& reader_;
  const Opened opened_;
  const std::string path_;
  const SimVolumes::PlacedTree placed_;
  const FileFacts root_;
  const std::string ownPlace_;
};

class SimDirectoryReader::Lowered final : public LowPriority {
 public:
  explicit Lowered(SimDirectoryReader& reader) : reader_(reader) { reader_.countLowered(1); }
  ~Lowered() override { reader_.countLowered(-1); }

 private:
  SimDirectoryReader& reader_;
};

void SimDirectoryReader::fail(DirectoryCall call, const std::string& path, int error, std::optional<int> times) {
  os::NativeLock lock(mutex_);
  failures_[{call, path}] = {error, times};
}

void SimDirectoryReader::watchCalls(UniqueFunction<void(DirectoryCall, const std::string&)> watcher) {
  os::NativeLock lock(mutex_);
  watcher_ =
      watcher ? std::make_shared<UniqueFunction<void(DirectoryCall, const std::string&)>>(std::move(watcher)) : nullptr;
}

void SimDirectoryReader::setLayout(const std::string& path, SimLayout layout) {
  os::NativeLock lock(mutex_);
  layouts_[path] = std::move(layout);
}

void SimDirectoryReader::setGeneration(const std::string& path, std::uint64_t generation) {
  os::NativeLock lock(mutex_);
  generations_[path] = generation;
}

void SimDirectoryReader::setOffersWhole(bool offers) {
  os::NativeLock lock(mutex_);
  settings_.offersWhole = offers;
}

void SimDirectoryReader::setWaited(std::chrono::nanoseconds waited) {
  os::NativeLock lock(mutex_);
  settings_.waited = waited;
}

void SimDirectoryReader::setOwnPlace(std::string name) {
  os::NativeLock lock(mutex_);
  settings_.ownPlace = std::move(name);
}

void SimDirectoryReader::setProcessorCount(unsigned count) {
  os::NativeLock lock(mutex_);
  settings_.processors = count;
}

void SimDirectoryReader::setMemorySize(std::uint64_t bytes) {
  os::NativeLock lock(mutex_);
  settings_.memory = bytes;
}

void SimDirectoryReader::setPathOf(std::function<std::string(int)> pathOf) {
  os::NativeLock lock(mutex_);
  settings_.pathOf = std::move(pathOf);
}

int SimDirectoryReader::openNow() {
  os::NativeLock lock(mutex_);
  return open_;
}

int SimDirectoryReader::loweredNow() {
  os::NativeLock lock(mutex_);
  return loweredNow_;
}

int SimDirectoryReader::loweredEver() {
  os::NativeLock lock(mutex_);
  return loweredEver_;
}

void SimDirectoryReader::count(int change) {
  os::NativeLock lock(mutex_);
  open_ += change;
}

void SimDirectoryReader::countLowered(int change) {
  os::NativeLock lock(mutex_);
  loweredNow_ += change;
  loweredEver_ += std::max(change, 0);
}

std::optional<SimLayout> SimDirectoryReader::layoutAt(const std::string& path) {
  os::NativeLock lock(mutex_);
  const auto found = layouts_.find(path);
  return found == layouts_.end() ? std::nullopt : std::optional(found->second);
}

std::optional<std::uint64_t> SimDirectoryReader::generationAt(const std::string& path) {
  os::NativeLock lock(mutex_);
  const auto found = generations_.find(path);
  return found == generations_.end() ? std::nullopt : std::optional(found->second);
}

SimDirectoryReader::Settings SimDirectoryReader::settings() {
  os::NativeLock lock(mutex_);
  return settings_;
}

SysStatus SimDirectoryReader::begin(DirectoryCall call, const std::string& path) {
  std::shared_ptr<UniqueFunction<void(DirectoryCall, const std::string&)>> watcher;
  {
    os::NativeLock lock(mutex_);
    watcher = watcher_;
  }
  if (watcher) (*watcher)(call, path);
  os::NativeLock lock(mutex_);
  const auto found = failures_.find({call, path});
  if (found == failures_.end()) return {};
  const int error = found->second.error;
  if (found->second.times && --*found->second.times == 0) failures_.erase(found);
  return Errno{error};
}

SysResult<std::unique_ptr<OpenTree>> SimDirectoryReader::openTree(const std::string& root) {
  if (const SysStatus begun = begin(DirectoryCall::openTree, root); !begun) return Errno{begun.error()};
  auto placed = volumes_.treeAt(root);
  if (!placed || !placed->tree.find(placed->path)) return Errno{ENOENT};
  return std::unique_ptr<OpenTree>(std::make_unique<Tree>(*this, root, std::move(*placed)));
}

SysResult<std::unique_ptr<OpenTree>> SimDirectoryReader::openItem(int fd) {
  const auto pathOf = settings().pathOf;
  if (!pathOf) return Errno{EBADF};
  return openTree(pathOf(fd));
}

unsigned SimDirectoryReader::processorCount() { return settings().processors; }
std::uint64_t SimDirectoryReader::memorySize() { return settings().memory; }

std::unique_ptr<LowPriority> SimDirectoryReader::lowerPriority() { return std::make_unique<Lowered>(*this); }

}  // namespace quillmark::sim
