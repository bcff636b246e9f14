#include <fmt/format.h>

#include <cerrno>

#include "platform/ThisProcess.h"
#include "platform/random.h"
#include "snapshots/SafeFS.h"

namespace quillmark {
namespace {

// The errno of the first failure, 0 when all is written.
int writeAll(FileWork& work, int fd, std::string_view data) {
  while (!data.empty()) {
    const SysResult<std::size_t> written = work.write(fd, data);
    if (!written && written.error() == EINTR) continue;
    if (!written) return written.error();
    if (*written == 0) return EIO;
    data.remove_prefix(*written);
  }
  return 0;
}

}  // namespace

void SafeFS::writeAtomically(std::string_view data, const std::string& name, const Directory& parent,
                             std::uint32_t mode, std::uint32_t uid, std::uint32_t gid) const {
  validateComponent(name);
  const std::string temporary = fmt::format(".qlm-{}-{}", process_.pid(), random_.next());
  const SysResult<int> fd = work_.createFile(parent.fd(), temporary, mode);
  if (!fd) throw POSIXFailure("create file", name, fd.error());
  WorkDescriptor file(work_, *fd);
  const auto demand = [&](int error, const char* operation) {
    if (error == 0) return;
    file.close();
    (void)work_.unlinkat(parent.fd(), temporary);
    throw POSIXFailure(operation, name, error);
  };
  demand(writeAll(work_, file.get(), data), "write");
  demand(work_.fchown(file.get(), uid, gid).error(), "set owner of");
  demand(work_.fchmod(file.get(), mode).error(), "set permissions of");
  demand(work_.rename(parent.fd(), temporary, parent.fd(), name, RenameMode::replace).error(), "commit");
}

}  // namespace quillmark
