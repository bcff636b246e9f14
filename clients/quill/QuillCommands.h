// The commands of quill: each does its work and answers the exit code.
// Ownership: borrow their context.
// Threads:   one thread at a time.
// Errors:    thrown; what was printed before stays.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/HostPaths.h"
#include "platform/posix.h"
#include "platform/random.h"
#include "quill/CommandLine.h"
#include "quill/HelperConnection.h"
#include "quill/LiveLine.h"
#include "quill/LocalVolumes.h"
#include "quill/Output.h"

namespace quillmark::cli {

struct CommandContext {
  HelperAccess& helper;
  LocalVolumes& volumes;
  Clock& clock;
  Output& output;
  const HostPaths& paths;
  // Tells the person what is waited for as long as the result lives.
  std::function<std::shared_ptr<void>(const std::string& text)> busy;
  Posix& posix;
  Random& random;
  // Asks the person, with a text that was made harmless; empty where there is none to ask.
  std::function<bool(const std::string& question)> confirm;
  // Waits for more in the shared directory, at most a moment. False once the person has had enough, or is gone.
  std::function<bool()> waitForMore;
  // All of standard input. Throws wrongUse for more than any input is.
  std::function<std::string()> input;
  // From here on an interrupt ends the process, and is no failure.
  std::function<void()> endAtInterrupt;
  // From here on an interrupt ends the process with exit code 130, and says that indexing goes on.
  std::function<void()> leaveIndexingAtInterrupt;
  // From here on standard output goes page by page, as long as the result lives; null where nothing changes.
  std::function<std::shared_ptr<void>()> page;
  // Null where nobody would see it.
  std::function<std::unique_ptr<LiveLine>()> liveLine;
};

[[nodiscard]] int run(CommandContext& context, const VolumesRequest& request);
[[nodiscard]] int run(CommandContext& context, const ListRequest& request);
[[nodiscard]] int run(CommandContext& context, const CreateRequest& request);
[[nodiscard]] int run(CommandContext& context, const SafetyRequest& request);
[[nodiscard]] int run(CommandContext& context, const IndexRequest& request);
[[nodiscard]] int run(CommandContext& context, const DiffRequest& request);
[[nodiscard]] int run(CommandContext& context, const DeleteRequest& request);
[[nodiscard]] int run(CommandContext& context, const ProtectRequest& request);
[[nodiscard]] int run(CommandContext& context, const TagRequest& request);
[[nodiscard]] int run(CommandContext& context, const MountRequest& request);
[[nodiscard]] int run(CommandContext& context, const UnmountRequest& request);
[[nodiscard]] int run(CommandContext& context, const LogRequest& request);
[[nodiscard]] int run(CommandContext& context, const ScheduleRequest& request);
[[nodiscard]] int run(CommandContext& context, const SettingsRequest& request);
[[nodiscard]] int run(CommandContext& context, const PlanRequest& request);
[[nodiscard]] int run(CommandContext& context, const SpaceRequest& request);
[[nodiscard]] int run(CommandContext& context, const NoticesRequest& request);
[[nodiscard]] int run(CommandContext& context, const WatchRequest& request);
[[nodiscard]] int run(CommandContext& context, const HealthRequest& request);
[[nodiscard]] int run(CommandContext& context, const QuitRequest& request);
[[nodiscard]] int run(CommandContext& context, const VersionRequest& request);
[[nodiscard]] int run(CommandContext& context, const CallRequest& request);

}  // namespace quillmark::cli
