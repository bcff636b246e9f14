// A log file of any bytes: a reader comes to its last line feed with each line either a record or counted, and reading it
// in two parts, cut anywhere, gives the same.
#include <array>
#include <cstdlib>
#include <cstring>

#include "base/Error.h"
#include "journal/HelperEvent.h"
#include "journal/JSONLinesReader.h"
#include "platform/PlatformLog.h"
#include "platform/posix.h"

namespace {

using namespace quillmark;

class NoLog final : public PlatformLog {
 public:
  void log(PlatformLogType, std::string_view, std::string_view, std::string_view) override {}
};

// One file in memory, which can't be changed.
class OneFile final : public Posix {
 public:
  explicit OneFile(std::string_view bytes) : bytes_(bytes) {}

  SysResult<int> open(const std::string&, OpenFlags) override { return 3; }
  void close(int) override {}
  SysResult<std::size_t> read(int, std::span<std::byte>) override { return Errno{EBADF}; }
  SysResult<std::size_t> pread(int, std::span<std::byte> into, std::uint64_t offset) override {
    const std::string_view rest = bytes_.substr(std::min<std::size_t>(offset, bytes_.size()), into.size());
    std::memcpy(into.data(), rest.data(), rest.size());
    return rest.size();
  }
  SysResult<FileStatus> fstat(int) override { return status(); }
  SysResult<FileStatus> lstat(const std::string&) override { return status(); }
  SysResult<std::vector<std::string>> list(const std::string&) override { return std::vector<std::string>{"log"}; }

  SysResult<std::size_t> write(int, std::string_view) override { return Errno{EROFS}; }
  SysStatus fsync(int) override { return Errno{EROFS}; }
  SysStatus fchmod(int, std::uint32_t) override { return Errno{EROFS}; }
  SysStatus fchown(int, std::uint32_t, std::uint32_t) override { return Errno{EROFS}; }
  SysStatus ftruncate(int, std::int64_t) override { return Errno{EROFS}; }
  SysStatus tryLockFile(int) override { return Errno{EROFS}; }
  SysStatus mkdir(const std::string&, std::uint32_t) override { return Errno{EROFS}; }
  SysStatus rmdir(const std::string&) override { return Errno{EROFS}; }
  SysStatus unlink(const std::string&) override { return Errno{EROFS}; }
  SysStatus rename(const std::string&, const std::string&) override { return Errno{EROFS}; }
  SysStatus chmod(const std::string&, std::uint32_t) override { return Errno{EROFS}; }
  SysStatus chown(const std::string&, std::uint32_t, std::uint32_t) override { return Errno{EROFS}; }

 private:
  [[nodiscard]] FileStatus status() const {
    return {.type = FileType::regular, .size = std::ssize(bytes_), .device = 1, .inode = 2};
  }
  const std::string_view bytes_;
};

void demand(bool condition) {
  if (!condition) std::abort();
}

ReadBatch<HelperEvent> read(std::string_view bytes, std::optional<JSONLinesCursor> cursor) {
  NoLog log;
  OneFile file(bytes);
  return JSONLinesReader<HelperEvent>(
             file, log, {.directoryPath = "", .currentFileName = "log", .archivePrefix = "-", .archiveSuffix = "-"})
      .readSince(cursor);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const std::size_t cut = (data[0] | std::size_t{data[1]} << 8) % (size - 1);
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  const ReadBatch<HelperEvent> whole = read(bytes, {});
  demand(!whole.error && whole.cursor && whole.cursor->offset == bytes.rfind('\n') + 1);
  std::int64_t lines = 0;
  for (std::size_t at = 0, end = 0; (end = bytes.find('\n', at)) != std::string_view::npos; at = end + 1)
    lines += end > at;
  demand(std::ssize(whole.records) + whole.skippedCorruptLines == lines);

  const ReadBatch<HelperEvent> first = read(bytes.substr(0, cut), {});
  demand(!first.error && first.cursor && first.cursor->offset <= cut);
  const ReadBatch<HelperEvent> second = read(bytes, first.cursor);
  demand(!second.error && second.resumedCursor && second.cursor == whole.cursor);
  demand(first.skippedCorruptLines + second.skippedCorruptLines == whole.skippedCorruptLines);
  std::vector<HelperEvent> both = first.records;
  both.insert(both.end(), second.records.begin(), second.records.end());
  demand(both == whole.records);

  // A cursor from anywhere is never followed into a line.
  const ReadBatch<HelperEvent> stray = read(bytes, JSONLinesCursor{1, 2, cut});
  demand(!stray.error && stray.cursor == whole.cursor);
  demand(stray.resumedCursor == (cut == 0 || (cut <= bytes.size() && bytes[cut - 1] == '\n')));
  demand(stray.resumedCursor || stray.records == whole.records);
  return 0;
}
