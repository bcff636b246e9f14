#include "platform/linux/identity/ClientGroups.h"

#include <fcntl.h>
#include <grp.h>

#include <cerrno>
#include <vector>

namespace quillmark::os {
namespace {

constexpr std::chrono::minutes lifetime{1};

std::optional<std::uint32_t> groupId(const char* name) {
  constexpr std::size_t largestRecord = 1024 * 1024;
  for (std::size_t size = 4096; size <= largestRecord; size *= 4) {
    std::vector<char> buffer(size);
    group record{};
    group* found = nullptr;
    const int error = ::getgrnam_r(name, &record, buffer.data(), buffer.size(), &found);
    if (error == ERANGE) continue;
    return found ? std::optional<std::uint32_t>(found->gr_gid) : std::nullopt;
  }
  return std::nullopt;
}

std::optional<FileStamp> stampOfDatabase() {
  const std::optional<FileFacts> facts = localFacts(AT_FDCWD, "/etc/group");
  return facts ? std::optional(facts->stamp) : std::nullopt;
}

}  // namespace

ClientGroupIds ClientGroups::current() {
  const std::optional<FileStamp> database = stampOfDatabase();
  const MonotonicTime now = monotonicNow();
  {
    NativeLock lock(mutex_);
    if (known_ && known_->database == database && now < known_->at + lifetime) return known_->ids;
  }
  const auto found = threads_.run<ClientGroupIds>(
      [] { return std::optional(ClientGroupIds{.users = groupId(users), .programs = groupId(programs)}); });
  NativeLock lock(mutex_);
  if (found) known_ = Known{*found, database, now};
  return known_ ? known_->ids : ClientGroupIds();
}

}  // namespace quillmark::os
