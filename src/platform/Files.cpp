#include "platform/Files.h"

#include <cerrno>
#include <vector>

#include "base/Error.h"
#include "base/Uuid.h"
#include "platform/posix.h"
#include "platform/random.h"

namespace quillmark {

namespace {

// Parents belong to the machine, not to us.
constexpr std::uint32_t parentMode = 0755;
constexpr std::string_view temporaryMark = ".tmp.";

}  // namespace

std::string parentDirectory(const std::string& path) {
  const auto slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

void createDirectories(Posix& posix, const std::string& path, std::uint32_t mode, Ownership owner) {
  if (const auto status = posix.lstat(path); status && status->type == FileType::directory) return;
  if (const std::string parent = parentDirectory(path); parent != path && parent != ".") {
    createDirectories(posix, parent, parentMode, {});
  }
  const SysStatus made = posix.mkdir(path, mode);
  if (!made && made.error() == EEXIST) {
    if (const auto status = posix.lstat(path); status && status->type == FileType::directory) return;
  }
  if (!made) throw posixError("mkdir", path, made.error());
  setAttributes(posix, path, mode, owner);
}

void createDirectoriesDurably(Posix& posix, const std::string& path, std::uint32_t mode, Ownership owner) {
  if (const auto status = posix.lstat(path); status && status->type == FileType::directory) return;
  const std::string parent = parentDirectory(path);
  if (parent != path && parent != ".") createDirectoriesDurably(posix, parent, parentMode, {});
  createDirectories(posix, path, mode, owner);
  syncNamesIn(posix, parent);
}

void syncNamesIn(Posix& posix, const std::string& path) {
  const SysResult<int> opened = posix.open(path, {.read = true, .directory = true});
  if (!opened) throw posixError("open", path, opened.error());
  const OpenFile directory(posix, *opened);
  if (const SysStatus synced = posix.fsync(directory.get()); !synced) throw posixError("fsync", path, synced.error());
}

std::optional<std::string> readFile(Posix& posix, const std::string& path, std::size_t limit) {
  // A link that leads nowhere is no absent file, and opening a pipe would wait for its writer.
  const SysResult<FileStatus> there = posix.lstat(path);
  if (!there && there.error() == ENOENT) return std::nullopt;
  if (!there) throw posixError("lstat", path, there.error());
  if (there->type != FileType::regular) throw posixError("open", path, EINVAL);
  const SysResult<int> opened = posix.open(path, {.read = true, .noFollow = true});
  if (!opened) throw posixError("open", path, opened.error());
  const OpenFile file(posix, *opened);
  std::string data;
  std::vector<std::byte> chunk(std::size_t{64} << 10);
  while (true) {
    const SysResult<std::size_t> got = posix.read(file.get(), chunk);
    if (!got && got.error() == EINTR) continue;
    if (!got) throw posixError("read", path, got.error());
    if (*got == 0) return data;
    if (*got > limit - data.size()) throw posixError("read", path, EFBIG);
    data.append(reinterpret_cast<const char*>(chunk.data()), *got);
  }
}

namespace {

void writeAll(Posix& posix, int fd, const std::string& path, std::string_view data) {
  while (!data.empty()) {
    const SysResult<std::size_t> put = posix.write(fd, data);
    if (!put && put.error() == EINTR) continue;
    if (!put) throw posixError("write", path, put.error());
    if (*put == 0) throw posixError("write", path, EIO);
    data.remove_prefix(*put);
  }
}

void writeTemporary(Posix& posix, const std::string& path, std::string_view data, std::uint32_t mode) {
  const SysResult<int> opened = posix.open(path, {.write = true, .create = true, .exclusive = true, .mode = mode});
  if (!opened) throw posixError("open", path, opened.error());
  const OpenFile file(posix, *opened);
  writeAll(posix, file.get(), path, data);
  if (const SysStatus synced = posix.fsync(file.get()); !synced) throw posixError("fsync", path, synced.error());
}

}  // namespace

void writeAtomically(Posix& posix, Random& random, const std::string& path, std::string_view data, std::uint32_t mode) {
  const std::string temporary = path + std::string(temporaryMark) + random.uuid().lower();
  try {
    writeTemporary(posix, temporary, data, mode);
    if (const SysStatus renamed = posix.rename(temporary, path); !renamed) {
      throw posixError("rename", path, renamed.error());
    }
  } catch (const Error&) {
    (void)posix.unlink(temporary);
    throw;
  }
  syncNamesIn(posix, parentDirectory(path));
}

bool isTemporaryName(std::string_view name) {
  const auto mark = name.rfind(temporaryMark);
  if (mark == std::string_view::npos || mark == 0) return false;
  const std::string_view tail = name.substr(mark + temporaryMark.size());
  const std::optional<Uuid> uuid = Uuid::parse(tail);
  return uuid && uuid->lower() == tail;
}

void setAttributes(Posix& posix, const std::string& path, std::uint32_t mode, Ownership owner) {
  if (const SysStatus changed = posix.chmod(path, mode); !changed) throw posixError("chmod", path, changed.error());
  if (const SysStatus changed = posix.chown(path, owner.uid, owner.gid); !changed) {
    throw posixError("chown", path, changed.error());
  }
}

}  // namespace quillmark
