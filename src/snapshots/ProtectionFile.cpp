#include "snapshots/ProtectionFile.h"

#include <cerrno>

#include "base/Error.h"
#include "platform/Files.h"
#include "platform/posix.h"
#include "platform/random.h"
#include "snapshots/StoreHomes.h"

namespace quillmark {
namespace {

class Replacement final {
 public:
  Replacement(Posix& posix, Random& random, const std::string& path)
      : posix_(posix), path_(path), temporary_(path + ".tmp." + random.uuid().lower()) {}

  void run(std::string_view data) {
    if (data.size() > maxStoreFileBytes) fail("write protection temp file", EFBIG);
    createStoreDirectory(posix_, path_);
    const OpenFile file(posix_, required("create protection temp file", posix_.open(temporary_, newFile)));
    try {
      fill(file.get(), data);
      require("replace protection store", posix_.rename(temporary_, path_));
    } catch (const Error&) {
      (void)posix_.unlink(temporary_);
      throw;
    }
    syncDirectory();
  }

 private:
  static constexpr OpenFlags newFile{.write = true, .create = true, .exclusive = true, .mode = 0600};

  [[noreturn]] void fail(const std::string& step, int error) const {
    throw Error(std::string(posixErrorDomain), error, step + " failed for " + path_ + ": " + errnoText(error));
  }
  void require(const std::string& step, const SysStatus& status) const {
    if (!status) fail(step, status.error());
  }
  [[nodiscard]] int required(const std::string& step, const SysResult<int>& opened) const {
    if (!opened) fail(step, opened.error());
    return *opened;
  }

  void fill(int fd, std::string_view data) {
    while (!data.empty()) {
      const SysResult<std::size_t> written = posix_.write(fd, data);
      if (!written && written.error() == EINTR) continue;
      if (!written) fail("write protection temp file", written.error());
      if (*written == 0) fail("write protection temp file", EIO);
      data.remove_prefix(*written);
    }
    require("chmod protection temp file", posix_.fchmod(fd, 0600));
    require("chown protection temp file", posix_.fchown(fd, 0, 0));
    require("fsync protection temp file", posix_.fsync(fd));
  }

  void syncDirectory() {
    const OpenFile directory(posix_, required("open protection store directory",
                                              posix_.open(parentDirectory(path_), {.read = true, .directory = true})));
    require("fsync protection store directory", posix_.fsync(directory.get()));
  }

  Posix& posix_;
  const std::string& path_;
  const std::string temporary_;
};

}  // namespace

void replaceProtectionFile(Posix& posix, Random& random, const std::string& path, std::string_view data) {
  Replacement(posix, random, path).run(data);
}

}  // namespace quillmark
