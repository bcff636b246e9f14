#include "platform/linux/identity/ProgramChecks.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <string_view>

#include "platform/linux/MountTable.h"

namespace quillmark::os {
namespace {

constexpr std::chrono::seconds lifetime{300};
constexpr std::size_t mostJudged = 64;
constexpr std::size_t mostMountBytes = 16 * 1024 * 1024;

// File systems that answer from this machine's own devices and memory. On any other a read can wait for ever, or give
// one content to us and another to those who run the program.
constexpr std::string_view localTypes[] = {"btrfs",    "ext2",     "ext3",  "ext4",   "xfs",
                                           "f2fs",     "bcachefs", "tmpfs", "ramfs",  "overlay",
                                           "squashfs", "erofs",    "zfs",   "rootfs", "iso9660"};

bool isLocal(std::string_view type) {
  return std::find(std::begin(localTypes), std::end(localTypes), type) != std::end(localTypes);
}

// From the text of the mount table that the process itself sees: asking the file system could take for ever.
bool liesOnLocalFileSystem(const LinuxPeerProcess& process, std::uint64_t mountId) {
  const MountTable table = MountTable::parse(process.read("mountinfo", mostMountBytes));
  const auto found = std::find_if(table.entries().begin(), table.entries().end(),
                                  [&](const MountEntry& entry) { return entry.id == mountId; });
  return found != table.entries().end() && isLocal(found->type);
}

UniqueFd openForReading(int path) {
  return UniqueFd(::open(("/proc/self/fd/" + std::to_string(path)).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

}  // namespace

std::optional<ProgramIdentity> ProgramChecks::identify(const LinuxPeerProcess& process) {
  const std::optional<FileStamp> held = process.held();
  const UniqueFd path = process.openProgram();
  if (!held || !path.valid()) return std::nullopt;
  const std::optional<FileFacts> facts = localFacts(path.get(), "");
  if (!facts || facts->stamp != *held) return std::nullopt;
  std::optional<ProgramIdentity> identity = remembered(*held);
  if (!identity) {
    const bool isSafe = S_ISREG(facts->mode) && facts->uid == owner_ && (facts->mode & (S_IWGRP | S_IWOTH)) == 0;
    if (!isSafe || !liesOnLocalFileSystem(process, facts->mountId)) return std::nullopt;
    identity = read(path.get(), *facts);
    if (!identity) return std::nullopt;
  }
  // What was read is what the process runs, and still does.
  if (!process.runsWhatIsHeld() || !process.lives()) return std::nullopt;
  remember(*held, *identity);
  return identity;
}

std::optional<ProgramIdentity> ProgramChecks::read(int path, const FileFacts& facts) {
  const UniqueFd file = openForReading(path);
  const std::optional<FileFacts> opened = file.valid() ? localFacts(file.get(), "") : std::nullopt;
  if (!opened || opened->stamp != facts.stamp) return std::nullopt;
  const std::optional<CodeNote> note = noteOfFile(file.get(), facts.size);
  if (!note) return std::nullopt;
  ++filesRead_;
  const auto digest = digestOfFile(file.get(), facts.size, note->signatureOffset());
  const bool isValid = digest && note->keyId == anchor_.keyId() && isSignedBy(anchor_, *digest, note->signature);
  // Written to meanwhile, it would have another stamp.
  const std::optional<FileFacts> after = localFacts(file.get(), "");
  if (!after || after->stamp != facts.stamp) return std::nullopt;
  return ProgramIdentity{note->identifier, note->team, isValid};
}

std::optional<ProgramIdentity> ProgramChecks::remembered(const FileStamp& stamp) {
  const MonotonicTime now = monotonicNow();
  NativeLock lock(mutex_);
  const auto found = judged_.find(stamp);
  if (found == judged_.end() || now >= found->second.at + lifetime) return std::nullopt;
  return found->second.identity;
}

void ProgramChecks::remember(const FileStamp& stamp, const ProgramIdentity& identity) {
  const MonotonicTime now = monotonicNow();
  NativeLock lock(mutex_);
  const auto found = judged_.find(stamp);
  if (found != judged_.end() && now < found->second.at + lifetime) return;
  if (judged_.size() >= mostJudged) judged_.clear();
  judged_.insert_or_assign(stamp, Judged{identity, now});
}

}  // namespace quillmark::os
