#include "platform/sim/SimPosix.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "base/Error.h"
#include "platform/sim/SqliteFiles.h"

namespace quillmark::sim {
namespace {

std::string makeRoot() {
  for (const char* place : {"/dev/shm", "/tmp"}) {
    std::string path = std::string(place) + "/quillmark-sim-XXXXXX";
    if (::mkdtemp(path.data())) return path;
  }
  throw posixError("mkdtemp", "/tmp", errno);
}

// Everything that stands in an open file from an offset on.
std::string contentsFrom(int fd, std::size_t offset) {
  std::string contents;
  char buffer[16384];
  for (;;) {
    const ssize_t count = ::pread(fd, buffer, sizeof buffer, static_cast<off_t>(offset + contents.size()));
    if (count <= 0) return contents;
    contents.append(buffer, static_cast<std::size_t>(count));
  }
}

void writeFile(const std::string& path, const SimNode::State& state) {
  std::ofstream(path, std::ios::binary).write(state.content.data(), static_cast<std::streamsize>(state.content.size()));
}

}  // namespace

SimPosix::SimPosix(Clock* clock) : clock_(clock), root_(makeRoot()) { SqliteFiles::add(*this); }

SimPosix::SimPosix(Clock* clock, const SimDurability& durability, SimAttributeDisk attributes)
    : clock_(clock), root_(makeRoot()), durability_(durability), attributes_(std::move(attributes)) {
  SqliteFiles::add(*this);
}

SimPosix::~SimPosix() {
  SqliteFiles::remove(*this);
  for (const auto& [fd, node] : open_) files_.close(fd);
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

void SimPosix::setPlan(FaultPlan plan) {
  plan_ = plan;
  calls_ = counted_ = 0;
  fired_ = false;
}

SysResult<SimPosix::Verdict> SimPosix::enter(PosixCall call) {
  if (killed_) return Errno{EIO};
  ++calls_;
  if (plan_.only && plan_.only != call) return Verdict::goOn;
  if (++counted_ != plan_.atCall) return Verdict::goOn;
  switch (plan_.fault) {
    case Fault::none: return Verdict::goOn;
    case Fault::fail: fired_ = true; return Errno{plan_.error};
    case Fault::shortWrite: fired_ = call == PosixCall::write; return fired_ ? Verdict::shortWrite : Verdict::goOn;
    case Fault::kill: fired_ = true; return Errno{die()};
  }
  return Verdict::goOn;
}

SysStatus SimPosix::count(PosixCall call) {
  if (const auto verdict = enter(call); !verdict) return Errno{verdict.error()};
  return {};
}

int SimPosix::die() {
  killed_ = true;
  if (!killHook_) throw SimulatedKill{};
  killHook_();
  return EIO;
}

std::optional<std::string> SimPosix::inside(const std::string& path) const {
  if (path.compare(0, root_.size(), root_) != 0) return std::nullopt;
  std::string relative;
  for (std::size_t at = root_.size(); at < path.size();) {
    if (path[at] != '/') return std::nullopt;
    at = path.find_first_not_of('/', at);
    if (at == std::string::npos) break;
    const std::size_t end = std::min(path.find('/', at), path.size());
    const std::string name = path.substr(at, end - at);
    if (name == "..") return std::nullopt;
    if (name != ".") relative += (relative.empty() ? "" : "/") + name;
    at = end;
  }
  return relative;
}

std::string SimPosix::real(const std::string& relative) const {
  return relative.empty() ? root_ : root_ + "/" + relative;
}

SimNode::Ref SimPosix::nodeAt(const std::string& path) {
  const std::optional<std::string> relative = inside(path);
  if (!relative) return nullptr;
  SimNode::Ref node = durability_.find(*relative);
  if (!node && files_.lstat(real(*relative))) {
    adoptStrangers();
    node = durability_.find(*relative);
  }
  return node;
}

SimNode::Ref SimPosix::nodeOf(int fd) const {
  const auto found = open_.find(fd);
  return found == open_.end() ? nullptr : found->second;
}

Date SimPosix::now() { return clock_ ? clock_->now() : Date{}; }

void SimPosix::touch(const SimNode::Ref& node, bool contents) {
  if (!node) return;
  node->changed = now();
  if (contents) node->modified = node->changed;
}

SimNode::State SimPosix::stateAt(const std::string& relative) {
  const SimNode::Ref node = durability_.find(relative);
  SimNode::State state{.content = {}, .mode = 0, .uid = node ? node->uid : 0, .gid = node ? node->gid : 0};
  const SysResult<FileStatus> facts = files_.lstat(real(relative));
  if (facts) state.mode = facts->mode;
  if (!facts || facts->type != FileType::regular) return state;
  const SysResult<int> fd = files_.open(real(relative), {.read = true});
  if (fd) {
    state.content = contentsFrom(*fd, 0);
    files_.close(*fd);
  }
  return state;
}

FileStatus SimPosix::dressed(FileStatus facts, const SimNode::Ref& node) const {
  if (!node) return facts;
  facts.uid = node->uid;
  facts.gid = node->gid;
  if (clock_) {
    facts.modified = node->modified;
    facts.changed = node->changed;
  }
  return facts;
}

// Files that others made below the root, and names that others took away.
void SimPosix::adoptStrangers() {
  std::vector<std::string> gone;
  durability_.walk([&](const std::string& path, const SimNode::Ref&) {
    if (!files_.lstat(real(path))) gone.push_back(path);
  });
  for (auto path = gone.rbegin(); path != gone.rend(); ++path) durability_.removed(*path, {});
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
    const std::string relative = entry.path().string().substr(root_.size() + 1);
    if (!durability_.find(relative)) durability_.made(relative, entry.is_directory() && !entry.is_symlink(), now());
  }
}

std::unique_ptr<SimPosix> SimPosix::copyForSuccessor(Clock* clock) {
  adoptStrangers();
  std::unique_ptr<SimPosix> next(new SimPosix(clock, durability_, attributes_));
  std::filesystem::copy(root_, next->root_,
                        std::filesystem::copy_options::recursive | std::filesystem::copy_options::copy_symlinks |
                            std::filesystem::copy_options::overwrite_existing);
  durability_.walk([&](const std::string& path, const SimNode::Ref&) {
    if (const SysResult<FileStatus> facts = files_.lstat(real(path)); facts && facts->type != FileType::symlink) {
      static_cast<void>(files_.chmod(next->real(path), facts->mode));
    }
  });
  return next;
}

std::unique_ptr<SimPosix> SimPosix::powerCut(std::uint64_t seed, Clock* clock) {
  adoptStrangers();
  auto next = std::make_unique<SimPosix>(clock);
  const auto read = [this](const std::string& path) { return stateAt(path); };
  for (const SimDurability::Survivor& survivor : durability_.afterPowerCut(seed, read)) {
    const std::string path = next->real(survivor.path);
    if (survivor.node->directory) {
      static_cast<void>(files_.mkdir(path, 0700));
    } else {
      writeFile(path, survivor.state);
    }
    if (survivor.state.mode != 0) static_cast<void>(files_.chmod(path, survivor.state.mode));
    const SimNode::Ref node = next->durability_.made(survivor.path, survivor.node->directory, survivor.node->changed);
    node->modified = survivor.node->modified;
    node->uid = survivor.state.uid;
    node->gid = survivor.state.gid;
  }
  next->attributes_ = attributes_.afterPowerCut(seed);
  next->syncEverything();
  return next;
}

void SimPosix::syncEverything() {
  adoptStrangers();
  durability_.everythingSynced([this](const std::string& path) { return stateAt(path); });
  attributes_.everythingSynced();
}

SysResult<int> SimPosix::open(const std::string& path, OpenFlags flags) {
  if (const auto verdict = enter(PosixCall::open); !verdict) return Errno{verdict.error()};
  const std::optional<std::string> relative = inside(path);
  const bool leadsThere = root_.compare(0, path.size(), path) == 0;
  if (!relative && (!leadsThere || flags.write || flags.create)) return Errno{ENOENT};
  const SysResult<int> fd = files_.open(path, flags);
  if (!fd) return fd;
  SimNode::Ref node = relative ? durability_.find(*relative) : nullptr;
  if (relative && !node) {
    const SysResult<FileStatus> facts = files_.fstat(*fd);
    const SimNode::Ref parent = nodeAt(path.substr(0, path.rfind('/')));
    node = parent ? durability_.made(*relative, facts && facts->type == FileType::directory, now()) : nullptr;
    touch(parent, true);
  } else if (node && flags.truncate && flags.write) {
    SimDurability::contentsChanged(*node, 0);
    touch(node, true);
  }
  open_[*fd] = node;
  return fd;
}

void SimPosix::close(int fd) {
  if (open_.erase(fd) != 0) files_.close(fd);
}

SysResult<std::size_t> SimPosix::read(int fd, std::span<std::byte> into) {
  if (const auto verdict = enter(PosixCall::read); !verdict) return Errno{verdict.error()};
  return files_.read(fd, into);
}

SysResult<std::size_t> SimPosix::pread(int fd, std::span<std::byte> into, std::uint64_t offset) {
  if (const auto verdict = enter(PosixCall::read); !verdict) return Errno{verdict.error()};
  return files_.pread(fd, into, offset);
}

SysResult<std::size_t> SimPosix::write(int fd, std::string_view bytes) {
  const auto verdict = enter(PosixCall::write);
  if (!verdict) return Errno{verdict.error()};
  if (*verdict == Verdict::shortWrite && bytes.size() > 1) bytes = bytes.substr(0, bytes.size() / 2);
  const SysResult<std::size_t> written = files_.write(fd, bytes);
  const SimNode::Ref node = nodeOf(fd);
  if (written && *written > 0 && node) {
    const off_t end = ::lseek(fd, 0, SEEK_CUR);
    SimDurability::contentsChanged(*node, static_cast<std::size_t>(end) - *written);
    touch(node, true);
  }
  return written;
}

SysStatus SimPosix::fsync(int fd) {
  if (const auto verdict = enter(PosixCall::fsync); !verdict) return Errno{verdict.error()};
  const SysResult<FileStatus> facts = files_.fstat(fd);
  if (!facts) return Errno{facts.error()};
  const SimNode::Ref node = nodeOf(fd);
  if (!node) return {};
  if (node->directory) {
    durability_.namesSynced(node);
  } else {
    const int reading = ::open(("/proc/self/fd/" + std::to_string(fd)).c_str(), O_RDONLY | O_CLOEXEC);
    SimDurability::synced(
        *node,
        {.content = contentsFrom(reading, node->changedFrom), .mode = facts->mode, .uid = node->uid, .gid = node->gid});
    ::close(reading);
  }
  return {};
}

SysStatus SimPosix::fchmod(int fd, std::uint32_t mode) {
  if (const auto verdict = enter(PosixCall::fchmod); !verdict) return Errno{verdict.error()};
  touch(nodeOf(fd), false);
  return files_.fchmod(fd, mode);
}

SysStatus SimPosix::fchown(int fd, std::uint32_t uid, std::uint32_t gid) {
  if (const auto verdict = enter(PosixCall::fchown); !verdict) return Errno{verdict.error()};
  const SimNode::Ref node = nodeOf(fd);
  if (!node) return Errno{EBADF};
  node->uid = uid;
  node->gid = gid;
  touch(node, false);
  return {};
}

SysStatus SimPosix::ftruncate(int fd, std::int64_t size) {
  if (const auto verdict = enter(PosixCall::ftruncate); !verdict) return Errno{verdict.error()};
  const SysResult<FileStatus> before = files_.fstat(fd);
  const SysStatus done = files_.ftruncate(fd, size);
  const SimNode::Ref node = nodeOf(fd);
  if (done && before && node) {
    SimDurability::contentsChanged(*node, static_cast<std::size_t>(std::min(size, before->size)));
    touch(node, true);
  }
  return done;
}

SysResult<FileStatus> SimPosix::fstat(int fd) {
  if (const auto verdict = enter(PosixCall::fstat); !verdict) return Errno{verdict.error()};
  const SysResult<FileStatus> facts = files_.fstat(fd);
  if (!facts) return facts;
  return dressed(*facts, nodeOf(fd));
}

SysStatus SimPosix::tryLockFile(int fd) {
  if (const auto verdict = enter(PosixCall::lockFile); !verdict) return Errno{verdict.error()};
  return files_.tryLockFile(fd);
}

SysResult<FileStatus> SimPosix::lstat(const std::string& path) {
  if (const auto verdict = enter(PosixCall::lstat); !verdict) return Errno{verdict.error()};
  if (!inside(path) && root_.compare(0, path.size(), path) != 0) return Errno{ENOENT};
  const SysResult<FileStatus> facts = files_.lstat(path);
  if (!facts) return facts;
  return dressed(*facts, nodeAt(path));
}

SysStatus SimPosix::mkdir(const std::string& path, std::uint32_t mode) {
  if (const auto verdict = enter(PosixCall::mkdir); !verdict) return Errno{verdict.error()};
  const std::optional<std::string> relative = inside(path);
  if (!relative) return Errno{root_.compare(0, path.size(), path) == 0 ? EEXIST : EACCES};
  const SysStatus done = files_.mkdir(path, mode);
  if (!done) return done;
  const SimNode::Ref parent = nodeAt(path.substr(0, path.find_last_not_of('/') + 1).substr(0, path.rfind('/')));
  if (!durability_.find(*relative)) durability_.made(*relative, true, now());
  touch(parent, true);
  return {};
}

SysStatus SimPosix::rmdir(const std::string& path) {
  if (const auto verdict = enter(PosixCall::rmdir); !verdict) return Errno{verdict.error()};
  const SimNode::Ref node = nodeAt(path);
  if (!inside(path)) return Errno{ENOENT};
  const SysStatus done = files_.rmdir(path);
  if (done && node) durability_.removed(*inside(path), {});
  return done;
}

SysStatus SimPosix::unlink(const std::string& path) {
  if (const auto verdict = enter(PosixCall::unlink); !verdict) return Errno{verdict.error()};
  const std::optional<std::string> relative = inside(path);
  if (!relative) return Errno{ENOENT};
  const SimNode::Ref node = nodeAt(path);
  SimNode::State last = stateAt(*relative);
  const SysStatus done = files_.unlink(path);
  if (done && node) durability_.removed(*relative, std::move(last));
  return done;
}

SysStatus SimPosix::rename(const std::string& from, const std::string& to) {
  if (const auto verdict = enter(PosixCall::rename); !verdict) return Errno{verdict.error()};
  const std::optional<std::string> source = inside(from);
  const std::optional<std::string> target = inside(to);
  if (!source || !target) return Errno{ENOENT};
  const SimNode::Ref node = nodeAt(from);
  static_cast<void>(nodeAt(to));
  SimNode::State replaced = stateAt(*target);
  const SysStatus done = files_.rename(from, to);
  if (done && node) {
    durability_.renamed(*source, *target, std::move(replaced));
    touch(node, false);
  }
  return done;
}

SysStatus SimPosix::chmod(const std::string& path, std::uint32_t mode) {
  if (const auto verdict = enter(PosixCall::chmod); !verdict) return Errno{verdict.error()};
  if (!inside(path)) return Errno{ENOENT};
  touch(nodeAt(path), false);
  return files_.chmod(path, mode);
}

SysStatus SimPosix::chown(const std::string& path, std::uint32_t uid, std::uint32_t gid) {
  if (const auto verdict = enter(PosixCall::chown); !verdict) return Errno{verdict.error()};
  const SimNode::Ref node = nodeAt(path);
  if (!node) return Errno{ENOENT};
  node->uid = uid;
  node->gid = gid;
  touch(node, false);
  return {};
}

SysResult<std::vector<std::string>> SimPosix::list(const std::string& path) {
  if (const auto verdict = enter(PosixCall::list); !verdict) return Errno{verdict.error()};
  if (!inside(path)) return Errno{ENOENT};
  SysResult<std::vector<std::string>> names = files_.list(path);
  // The same order in every run.
  if (names) std::sort(names->begin(), names->end());
  return names;
}

}  // namespace quillmark::sim
