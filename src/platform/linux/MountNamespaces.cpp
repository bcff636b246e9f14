#include "platform/linux/MountNamespaces.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <functional>
#include <memory>
#include <set>
#include <utility>

#include "base/UniqueFd.h"

namespace quillmark::os {
namespace {

// A process may end between being listed and being asked, and one that ended has no mounts.
bool isGone(int error) { return error == ENOENT || error == ESRCH || error == EINVAL; }

// 0 when it isn't told: of a process that ended, or one with more rights than we have. Its table may be open even so.
ino_t mountNamespace(const std::string& process) {
  struct stat status;
  return ::stat((process + "/ns/mnt").c_str(), &status) == 0 ? status.st_ino : 0;
}

constexpr std::string_view idOption = "subvolid=";

bool isProcess(const char* name) {
  return *name &&
         std::all_of(name, name + std::char_traits<char>::length(name), [](char c) { return c >= '0' && c <= '9'; });
}

class NamespaceScan final {
 public:
  NamespaceScan(SubvolumeSearch search, Clock& clock, const NamespaceLimits& limits)
      : search_(std::move(search)), clock_(clock), deadline_(after(clock.monotonic(), limits.time)),
        bytesLeft_(limits.bytes) {}

  [[nodiscard]] bool found() const { return search_.found(); }

  SysStatus readTableOf(const std::string& process) {
    const UniqueFd file(::open((process + "/mountinfo").c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.valid()) return Errno{errno};
    search_.restart();
    auto piece = readPiece(file.get());
    if (!piece) return Errno{piece.error()};
    const View view(mountNamespace(process), std::hash<std::string_view>()(*piece));
    if (view.first != 0 && seen_.contains(view)) return {};
    while (!piece->empty()) {
      search_.feed(*piece);
      if (found()) return {};
      piece = readPiece(file.get());
      if (!piece) return Errno{piece.error()};
    }
    seen_.insert(view);
    return {};
  }

 private:
  // A process sees what is mounted below its own root, by paths from there: the same namespace with the same ids at the
  // same paths is one view. Asking the root itself who it is could wait for a dead file server. The beginning, which
  // the kernel cuts at a page or a line longer than that, stands for the whole.
  using View = std::pair<ino_t, std::size_t>;

  SysResult<std::string_view> readPiece(int file) {
    for (;;) {
      if (bytesLeft_ == 0 || clock_.monotonic() >= deadline_) return Errno{EBUSY};
      const ssize_t count = ::read(file, buffer_, std::min<std::uint64_t>(sizeof buffer_, bytesLeft_));
      if (count < 0 && errno != EINTR) return Errno{errno};
      if (count < 0) continue;
      bytesLeft_ -= static_cast<std::uint64_t>(count);
      return std::string_view(buffer_, static_cast<std::size_t>(count));
    }
  }

  SubvolumeSearch search_;
  Clock& clock_;
  const MonotonicTime deadline_;
  std::uint64_t bytesLeft_;
  std::set<View> seen_;
  char buffer_[65536];
};

}  // namespace

SubvolumeSearch::SubvolumeSearch(DeviceNumber device, btrfs::SubvolumeId subvolume)
    : device_(std::to_string(device.major) + ":" + std::to_string(device.minor)),
      subvolume_(std::string(idOption) + std::to_string(subvolume)), all_(nullptr) {}

SubvolumeSearch::SubvolumeSearch(DeviceNumber device, SubvolumeIds& all)
    : device_(std::to_string(device.major) + ":" + std::to_string(device.minor)), all_(&all) {}

void SubvolumeSearch::restart() { endLine(); }

void SubvolumeSearch::feed(std::string_view piece) {
  while (!piece.empty() && !found_) {
    std::size_t end = 0;
    if (field_ == Field::restOfLine) {
      end = std::min(piece.find('\n'), piece.size());
    } else {
      const char separator = field_ == Field::superOptions ? ',' : ' ';
      while (end < piece.size() && piece[end] != separator && piece[end] != '\n') ++end;
      append(piece.substr(0, end));
    }
    if (end == piece.size()) return;
    endToken();
    if (piece[end] == '\n') endLine();
    piece.remove_prefix(end + 1);
  }
}

void SubvolumeSearch::append(std::string_view part) {
  tokenSize_ += part.copy(token_ + tokenSize_, sizeof token_ - tokenSize_);
}

void SubvolumeSearch::endToken() {
  switch (field_) {
    case Field::id: field_ = Field::parent; break;
    case Field::parent: field_ = Field::device; break;
    case Field::device: field_ = token() == device_ ? Field::places : Field::restOfLine; break;
    case Field::places:
      if (token() == "-") field_ = Field::type;
      break;
    case Field::type: field_ = Field::source; break;
    case Field::source: field_ = Field::superOptions; break;
    case Field::superOptions:
      // The first one is the kernel's; the subvolume's name, which comes last, may hold commas and another.
      found_ = !all_ && token() == subvolume_;
      if (!token().starts_with(idOption)) break;
      field_ = Field::restOfLine;
      if (all_) gather(token().substr(idOption.size()));
      break;
    case Field::restOfLine: break;
  }
  tokenSize_ = 0;
}

void SubvolumeSearch::gather(std::string_view digits) {
  btrfs::SubvolumeId id = 0;
  const auto [end, failure] = std::from_chars(digits.data(), digits.data() + digits.size(), id);
  if (failure == std::errc() && end == digits.data() + digits.size()) all_->insert(id);
}

void SubvolumeSearch::endLine() {
  field_ = Field::id;
  tokenSize_ = 0;
}

namespace {

// True when the search found what it looks for.
SysResult<bool> searchAllProcesses(SubvolumeSearch search, Clock& clock, const NamespaceLimits& limits) {
  struct Close {
    void operator()(DIR* directory) const { ::closedir(directory); }
  };
  const std::unique_ptr<DIR, Close> processes(::opendir("/proc"));
  if (!processes) return Errno{errno};
  const auto scan = std::make_unique<NamespaceScan>(std::move(search), clock, limits);
  while (const dirent* entry = ::readdir(processes.get())) {
    if (!isProcess(entry->d_name)) continue;
    const SysStatus status = scan->readTableOf(std::string("/proc/") + entry->d_name);
    if (!status && !isGone(status.error())) return Errno{status.error()};
    if (scan->found()) return true;
  }
  return false;
}

}  // namespace

SysResult<bool> isMountedAnywhere(DeviceNumber device, btrfs::SubvolumeId subvolume, Clock& clock,
                                  const NamespaceLimits& limits) {
  return searchAllProcesses(SubvolumeSearch(device, subvolume), clock, limits);
}

SysResult<SubvolumeIds> mountedAnywhere(DeviceNumber device, Clock& clock, const NamespaceLimits& limits) {
  SubvolumeIds all;
  const auto searched = searchAllProcesses(SubvolumeSearch(device, all), clock, limits);
  if (!searched) return Errno{searched.error()};
  return all;
}

}  // namespace quillmark::os
