#include "journal/LogFiles.h"

#include <algorithm>
#include <cerrno>
#include <tuple>

#include "platform/posix.h"

namespace quillmark {

Error jsonLinesError(const std::string& operation, int error) {
  return Error(std::string(jsonLinesErrorDomain), error, operation + " failed: " + errnoText(error));
}

std::vector<LogFile> listLogFiles(Posix& posix, const JSONLinesDescription& description) {
  const SysResult<std::vector<std::string>> names = posix.list(description.directoryPath);
  if (!names && names.error() == ENOENT) return {};
  if (!names) throw jsonLinesError("readdir(" + description.directoryPath + ")", names.error());
  std::vector<LogFile> files;
  for (const std::string& name : *names) {
    const bool isCurrent = name == description.currentFileName;
    if (!isCurrent && !description.isArchive(name)) continue;
    std::string path = description.directoryPath + "/" + name;
    const SysResult<FileStatus> status = posix.lstat(path);
    if (!status || status->type != FileType::regular) continue;
    files.push_back(
        {name, std::move(path), {status->device, status->inode}, static_cast<std::uint64_t>(status->size), isCurrent});
  }
  std::sort(files.begin(), files.end(), [](const LogFile& a, const LogFile& b) {
    return std::tie(a.isCurrent, a.name) < std::tie(b.isCurrent, b.name);
  });
  return files;
}

}  // namespace quillmark
