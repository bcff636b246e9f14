#include "platform/linux/ExtentLayout.h"

#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <linux/openat2.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace quillmark::os {
namespace {

constexpr std::uint64_t hole = ~0ull;
constexpr std::uint32_t placeless = FIEMAP_EXTENT_UNKNOWN | FIEMAP_EXTENT_DELALLOC | FIEMAP_EXTENT_ENCODED |
                                    FIEMAP_EXTENT_DATA_INLINE | FIEMAP_EXTENT_DATA_TAIL | FIEMAP_EXTENT_NOT_ALIGNED;

}  // namespace

SysResult<std::unique_ptr<FileLayout>> ExtentLayout::open(int directory, const char* name) {
  open_how how{};
  how.flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  UniqueFd fd(static_cast<int>(::syscall(SYS_openat2, directory, name, &how, sizeof how)));
  if (!fd.valid()) return Errno{errno};
  return of(std::move(fd));
}

SysResult<std::unique_ptr<FileLayout>> ExtentLayout::of(UniqueFd fd) {
  struct stat status;
  if (::fstat(fd.get(), &status) != 0) return Errno{errno};
  if (!S_ISREG(status.st_mode)) return Errno{EINVAL};
  const std::int64_t changed = status.st_ctim.tv_sec * std::int64_t{1'000'000'000} + status.st_ctim.tv_nsec;
  return std::unique_ptr<FileLayout>(new ExtentLayout(std::move(fd), status.st_size, changed));
}

SysResult<FileLayout::Run> ExtentLayout::runAt(std::int64_t offset, std::int64_t length) {
  alignas(fiemap) std::byte memory[sizeof(fiemap) + sizeof(fiemap_extent)] = {};
  auto* map = reinterpret_cast<fiemap*>(memory);
  map->fm_start = static_cast<std::uint64_t>(offset);
  map->fm_length = static_cast<std::uint64_t>(length);
  map->fm_extent_count = 1;
  if (::ioctl(fd_.get(), FS_IOC_FIEMAP, map) != 0) return Errno{errno};
  if (map->fm_mapped_extents == 0) return Run{length, hole};
  fiemap_extent extent;
  std::memcpy(&extent, memory + sizeof(fiemap), sizeof extent);
  const auto start = static_cast<std::int64_t>(extent.fe_logical);
  if (start > offset) return Run{std::min(start - offset, length), hole};
  if ((extent.fe_flags & placeless) != 0) return Errno{ENODATA};
  const std::int64_t skipped = offset - start;
  return Run{std::min(static_cast<std::int64_t>(extent.fe_length) - skipped, length),
             extent.fe_physical + static_cast<std::uint64_t>(skipped)};
}

}  // namespace quillmark::os
