#include "snapshots/MountNames.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/Text.h"
#include "platform/SnapshotCalls.h"

namespace quillmark {
namespace {

constexpr std::string_view snapshotMark = "@snap-";

bool isMountScalar(char32_t scalar) {
  return (scalar >= 'a' && scalar <= 'z') || (scalar >= 'A' && scalar <= 'Z') || (scalar >= '0' && scalar <= '9') ||
         scalar == ' ' || scalar == '.' || scalar == '_' || scalar == '-';
}

}  // namespace

std::string sanitizeMountComponent(std::string_view text) {
  std::string result;
  bool inRun = false;
  for (const char32_t scalar : scalars(text)) {
    if (isMountScalar(scalar)) {
      result += static_cast<char>(scalar);
    } else if (!inRun) {
      result += '_';
    }
    inRun = !isMountScalar(scalar);
  }
  result = trimWhitespaceAndNewlines(result).substr(0, 80);
  return result.empty() ? "snapshot" : result;
}

std::string snapshotMountName(std::string_view volumeName, std::string_view uuid) {
  const std::optional<Uuid> parsed = Uuid::parse(uuid);
  return sanitizeMountComponent(volumeName).substr(0, 40) + "-" +
         (parsed ? parsed->lower() : sanitizeMountComponent(uuid).substr(0, 36));
}

std::string userMountPath(const HostPaths& paths, const VolumeInfo& volume, Xid xid) {
  return fmt::format("{}/{}{}{}", paths.userMountRoot, snapshotMountName(volume.name, volume.uuid), snapshotMark,
                     xid.value);
}

std::optional<std::string> acceptableMountPath(const HostPaths& paths, const std::string& path) {
  const std::string root = paths.userMountRoot + "/";
  if (path.find('\0') != std::string::npos || !path.starts_with(root)) return std::nullopt;
  const std::string_view leaf = std::string_view(path).substr(root.size());
  if (leaf.empty() || leaf.find('/') != std::string_view::npos || leaf == "." || leaf == "..") return std::nullopt;
  const auto mark = leaf.rfind(snapshotMark);
  if (mark == std::string_view::npos) return std::nullopt;
  const std::string_view head = leaf.substr(0, mark), tail = leaf.substr(mark + snapshotMark.size());
  if (head.empty() || head.size() > 80) return std::nullopt;
  const auto headScalars = scalars(head);
  if (!std::all_of(headScalars.begin(), headScalars.end(), isMountScalar)) return std::nullopt;
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  if (tail.empty() || !std::all_of(tail.begin(), tail.end(), isDigit)) return std::nullopt;
  return path;
}

bool isMountPoint(SnapshotCalls& calls, const std::string& path) {
  const auto status = calls.statfs(path);
  return status && status->mntonname == path;
}

bool isSnapshotMount(SnapshotCalls& calls, const std::string& path) {
  const auto status = calls.statfs(path);
  return status && status->fstypename == "apfs" && status->mntfromname.find("@/") != std::string::npos &&
         (status->flags & mntReadOnly) != 0 && status->mntonname == path;
}

}  // namespace quillmark
