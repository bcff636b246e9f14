#include "platform/sim/SimFileWork.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "base/Error.h"

namespace quillmark::sim {
namespace {

std::string makeRoot() {
  for (const char* place : {"/dev/shm", "/tmp"}) {
    std::string path = std::string(place) + "/quillmark-work-XXXXXX";
    if (::mkdtemp(path.data())) return path;
  }
  throw posixError("mkdtemp", "/tmp", errno);
}

}  // namespace

std::string nameOf(FileWorkCall call) {
  static constexpr std::array<const char*, 24> names{"openDirectory",
                                                     "lstat",
                                                     "openChild",
                                                     "openBeneath",
                                                     "createFile",
                                                     "mkdirat",
                                                     "unlinkat",
                                                     "rmdirat",
                                                     "rename",
                                                     "fstatat",
                                                     "fstat",
                                                     "readNames",
                                                     "seekNames",
                                                     "write",
                                                     "fchown",
                                                     "fchmod",
                                                     "futimens",
                                                     "flistxattr",
                                                     "fgetxattr",
                                                     "fsetxattr",
                                                     "accessControlList",
                                                     "setAccessControlList",
                                                     "flags",
                                                     "setFlags"};
  return names.at(static_cast<std::size_t>(call));
}

std::string FileWorkFault::describe() const {
  const std::string where = fmt::format("call {}{}", atCall, only ? " of " + nameOf(*only) : "");
  switch (fault) {
    case Fault::none: return "no fault";
    case Fault::fail: return fmt::format("{} at {}", strerrorname_np(error), where);
    case Fault::shortWrite: return "short write at " + where;
    case Fault::kill: return "kill at " + where;
  }
  return {};
}

SimFileWork::SimFileWork() : root_(makeRoot()), ownsRoot_(true) {}

SimFileWork::SimFileWork(std::string root) : root_(std::move(root)), ownsRoot_(false) {}

SimFileWork::~SimFileWork() {
  for (const int fd : open_) work_.close(fd);
  std::error_code ignored;
  if (ownsRoot_) std::filesystem::remove_all(root_, ignored);
}

void SimFileWork::setFault(FileWorkFault fault) {
  fault_ = fault;
  calls_.clear();
  counted_ = 0;
  fired_ = killed_ = false;
  mostOpen_ = open_.size();
}

SysResult<SimFileWork::Verdict> SimFileWork::enter(FileWorkCall call) {
  if (killed_) return Errno{EIO};
  calls_.push_back(call);
  if (hook_) hook_(call);
  if (fault_.only && fault_.only != call) return Verdict::goOn;
  if (++counted_ != fault_.atCall) return Verdict::goOn;
  switch (fault_.fault) {
    case Fault::none: return Verdict::goOn;
    case Fault::fail: fired_ = true; return Errno{fault_.error};
    case Fault::shortWrite: fired_ = call == FileWorkCall::write; return fired_ ? Verdict::shortWrite : Verdict::goOn;
    case Fault::kill: fired_ = true; return Errno{die()};
  }
  return Verdict::goOn;
}

int SimFileWork::die() {
  killed_ = true;
  if (!killHook_) throw SimulatedKill{};
  killHook_();
  return EIO;
}

SysResult<int> SimFileWork::noteOpened(SysResult<int> fd) {
  if (fd) open_.insert(*fd);
  mostOpen_ = std::max(mostOpen_, open_.size());
  return fd;
}

SysResult<StatRecord> SimFileWork::dressed(SysResult<StatRecord> record) const {
  if (!record) return record;
  const auto owner = owners_.find({record->device, record->inode});
  record->uid = owner == owners_.end() ? 0 : owner->second.uid;
  record->gid = owner == owners_.end() ? 0 : owner->second.gid;
  return record;
}

bool SimFileWork::isInside(const std::string& path) const {
  if (path.compare(0, root_.size(), root_) != 0) return root_.compare(0, path.size(), path) == 0;
  return (path + "/").find("/../") == std::string::npos;
}

void SimFileWork::forgetOwner(const SysResult<StatRecord>& record) {
  if (record) owners_.erase({record->device, record->inode});
}

SysResult<int> SimFileWork::openDirectory(const std::string& path) {
  if (const auto verdict = enter(FileWorkCall::openDirectory); !verdict) return Errno{verdict.error()};
  if (!isInside(path)) return Errno{ENOENT};
  return noteOpened(work_.openDirectory(path));
}

SysResult<StatRecord> SimFileWork::lstat(const std::string& path) {
  if (const auto verdict = enter(FileWorkCall::lstat); !verdict) return Errno{verdict.error()};
  if (!isInside(path)) return Errno{ENOENT};
  return dressed(work_.lstat(path));
}

SysResult<int> SimFileWork::openChild(int parent, const std::string& name) {
  if (const auto verdict = enter(FileWorkCall::openChild); !verdict) return Errno{verdict.error()};
  return noteOpened(work_.openChild(parent, name));
}

SysResult<int> SimFileWork::openBeneath(int root, const std::string& path) {
  if (const auto verdict = enter(FileWorkCall::openBeneath); !verdict) return Errno{verdict.error()};
  return noteOpened(work_.openBeneath(root, path));
}

SysResult<int> SimFileWork::createFile(int parent, const std::string& name, std::uint32_t mode) {
  if (const auto verdict = enter(FileWorkCall::createFile); !verdict) return Errno{verdict.error()};
  SysResult<int> fd = noteOpened(work_.createFile(parent, name, mode));
  if (fd) forgetOwner(work_.fstat(*fd));
  return fd;
}

void SimFileWork::close(int fd) {
  if (open_.erase(fd) != 0) work_.close(fd);
}

SysStatus SimFileWork::mkdirat(int parent, const std::string& name, std::uint32_t mode) {
  if (const auto verdict = enter(FileWorkCall::mkdirat); !verdict) return Errno{verdict.error()};
  const SysStatus made = work_.mkdirat(parent, name, mode);
  if (made) forgetOwner(work_.fstatat(parent, name));
  return made;
}

SysStatus SimFileWork::unlinkat(int parent, const std::string& name) {
  if (const auto verdict = enter(FileWorkCall::unlinkat); !verdict) return Errno{verdict.error()};
  return work_.unlinkat(parent, name);
}

SysStatus SimFileWork::rmdirat(int parent, const std::string& name) {
  if (const auto verdict = enter(FileWorkCall::rmdirat); !verdict) return Errno{verdict.error()};
  return work_.rmdirat(parent, name);
}

SysStatus SimFileWork::rename(int fromParent, const std::string& from, int toParent, const std::string& to,
                              RenameMode mode) {
  if (const auto verdict = enter(FileWorkCall::rename); !verdict) return Errno{verdict.error()};
  return work_.rename(fromParent, from, toParent, to, mode);
}

SysResult<StatRecord> SimFileWork::fstatat(int parent, const std::string& name) {
  if (const auto verdict = enter(FileWorkCall::fstatat); !verdict) return Errno{verdict.error()};
  return dressed(work_.fstatat(parent, name));
}

SysResult<StatRecord> SimFileWork::fstat(int fd) {
  if (const auto verdict = enter(FileWorkCall::fstat); !verdict) return Errno{verdict.error()};
  return dressed(work_.fstat(fd));
}

SysResult<std::vector<ListedName>> SimFileWork::readNames(int directory) {
  if (const auto verdict = enter(FileWorkCall::readNames); !verdict) return Errno{verdict.error()};
  return work_.readNames(directory);
}

SysStatus SimFileWork::seekNames(int directory, std::int64_t position) {
  if (const auto verdict = enter(FileWorkCall::seekNames); !verdict) return Errno{verdict.error()};
  return work_.seekNames(directory, position);
}

SysResult<std::size_t> SimFileWork::write(int fd, std::string_view bytes) {
  const auto verdict = enter(FileWorkCall::write);
  if (!verdict) return Errno{verdict.error()};
  if (*verdict == Verdict::shortWrite && bytes.size() > 1) bytes = bytes.substr(0, bytes.size() / 2);
  return work_.write(fd, bytes);
}

SysStatus SimFileWork::fchown(int fd, std::uint32_t uid, std::uint32_t gid) {
  if (const auto verdict = enter(FileWorkCall::fchown); !verdict) return Errno{verdict.error()};
  const SysResult<StatRecord> record = work_.fstat(fd);
  if (!record) return Errno{record.error()};
  owners_[{record->device, record->inode}] = {uid, gid};
  return {};
}

SysStatus SimFileWork::fchmod(int fd, std::uint32_t mode) {
  if (const auto verdict = enter(FileWorkCall::fchmod); !verdict) return Errno{verdict.error()};
  return work_.fchmod(fd, mode);
}

SysStatus SimFileWork::futimens(int fd, FileTime accessed, FileTime modified) {
  if (const auto verdict = enter(FileWorkCall::futimens); !verdict) return Errno{verdict.error()};
  return work_.futimens(fd, accessed, modified);
}

SysResult<std::vector<std::string>> SimFileWork::flistxattr(int fd) {
  if (const auto verdict = enter(FileWorkCall::flistxattr); !verdict) return Errno{verdict.error()};
  return work_.flistxattr(fd);
}

SysResult<std::string> SimFileWork::fgetxattr(int fd, const std::string& name) {
  if (const auto verdict = enter(FileWorkCall::fgetxattr); !verdict) return Errno{verdict.error()};
  return work_.fgetxattr(fd, name);
}

SysStatus SimFileWork::fsetxattr(int fd, const std::string& name, std::string_view value) {
  if (const auto verdict = enter(FileWorkCall::fsetxattr); !verdict) return Errno{verdict.error()};
  return work_.fsetxattr(fd, name, value);
}

SysResult<AccessControlList> SimFileWork::accessControlList(int fd) {
  if (const auto verdict = enter(FileWorkCall::accessControlList); !verdict) return Errno{verdict.error()};
  return work_.accessControlList(fd);
}

SysStatus SimFileWork::setAccessControlList(int fd, const AccessControlList& list) {
  if (const auto verdict = enter(FileWorkCall::setAccessControlList); !verdict) return Errno{verdict.error()};
  return work_.setAccessControlList(fd, list);
}

SysResult<std::uint32_t> SimFileWork::flags(int fd) {
  if (const auto verdict = enter(FileWorkCall::flags); !verdict) return Errno{verdict.error()};
  return work_.flags(fd);
}

SysStatus SimFileWork::setFlags(int fd, std::uint32_t flags) {
  if (const auto verdict = enter(FileWorkCall::setFlags); !verdict) return Errno{verdict.error()};
  return work_.setFlags(fd, flags);
}

}  // namespace quillmark::sim
