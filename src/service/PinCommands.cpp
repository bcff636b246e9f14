#include "base/Text.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "snapshots/MountNames.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using enum QuillmarkErrorCode;

constexpr std::size_t mostPaths = 16;
constexpr std::size_t longestReason = 200;  // characters
constexpr std::size_t longestFileName = 255;
constexpr std::chrono::seconds lifetime{90};

// Resolved, as they will be compared. A name that no file can bear resolves to nothing.
std::set<std::string> pinnedPaths(const HostPaths& paths, const std::vector<std::string>& asked) {
  std::set<std::string> resolved;
  for (const std::string& path : asked) {
    const std::optional<std::string> acceptable = acceptableMountPath(paths, path);
    if (!acceptable || acceptable->size() > paths.userMountRoot.size() + 1 + longestFileName) {
      throw QuillmarkError::make(invalidMountPath, "Pin path must resolve under " + paths.userMountRoot);
    }
    resolved.insert(*acceptable);
  }
  return resolved;
}

}  // namespace

void handle(CommandRun& run, const PinSnapshotMounts& call) {
  std::set<std::string> paths = pinnedPaths(run.environment().platform.paths, call.paths);
  if (call.paths.empty() || call.paths.size() > mostPaths || scalars(call.reason).size() > longestReason) {
    throw QuillmarkError::make(internalError, "Pin request must cover 1-16 paths with a short reason");
  }
  run.replyString(run.environment().mountPins.pin(std::move(paths), call.reason, call.token, lifetime));
}

void handle(CommandRun& run, const UnpinSnapshotMounts& call) {
  run.environment().mountPins.unpin(call.token);
  run.replyNothing();
}

}  // namespace quillmark
