#include "base/HelperLog.h"
#include "history/SnapshotHistoryManager.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "service/IndexProgressPush.h"
#include "wire/Json.h"
#include "wire/QuillmarkXPC.h"

namespace quillmark {

void handle(CommandRun& run, const HelperVersion&) {
  const std::string version = run.environment().platform.bundle.shortVersion.value_or("0.1.0");
  run.environment().log.info("XPC helperVersion() -> " + version);
  // Who connects in the middle of a run sees it at once.
  if (const auto& history = run.environment().history) {
    for (const ActiveIndexProgress& progress : history->activeIndexProgress()) {
      run.service().push(IndexProgressPush::selector, IndexProgressPush::arguments(progress));
    }
  }
  run.replyString(version);
}

void handle(CommandRun& run, const HelperGitCommit&) {
  run.replyString(run.environment().platform.bundle.gitCommit.value_or("unknown"));
}

void handle(CommandRun& run, const RequestQuit&) {
  (void)run.environment().shutdown.requestQuit([&](bool started) { run.replyBoolean(started); });
}

void handle(CommandRun& run, const ProtocolVersion&) { run.replyNumber(QuillmarkXPC::protocolVersion); }

void handle(CommandRun& run, const GetAuditLogHealth&) { run.replyData(encodeJson(run.environment().audit.health())); }

void handle(CommandRun& run, const HelperHealth&) { run.replyData(encodeJson(run.environment().health.evaluate())); }

}  // namespace quillmark
