#include "service/HelperProcess.h"

#include <fmt/format.h>

#include "platform/ThisProcess.h"
#include "platform/dispatch.h"
#include "service/DescriptorLimit.h"
#include "wire/QuillmarkXPC.h"

namespace quillmark {

HelperProcess::HelperProcess(const Platform& platform, Options options)
    : platform_(platform), options_(std::move(options)),
      log_(platform.dispatch, platform.clock, platform.posix, platform.log, platform.process, platform.paths.helperLog,
           options_.logRotation),
      environment_(platform, log_, {options_.exitProcess, options_.healthNotes}), listener_(environment_) {}

void HelperProcess::start() {
  raiseDescriptorLimit(platform_.process, log_);
  log_.info("QuillmarkHelper starting");
  log_.info(fmt::format("uid={} euid={} gid={}", platform_.process.uid(), platform_.process.effectiveUid(),
                        platform_.process.gid()));
  log_.info(fmt::format("Mach service: {}", QuillmarkXPC::serviceName));
  log_.info(fmt::format("Bundle: {}  exe={}", platform_.bundle.identifier.value_or("<none>"), options_.executable));
  environment_.start();
  log_.info("Scheduler started");
  listener_.resume();
  log_.info(fmt::format("Listening on Mach service {}", QuillmarkXPC::serviceName));
  log_.info("Designated requirement (peer must satisfy this):");
  log_.info(fmt::format("  {}", QuillmarkXPC::designatedRequirement));
  log_.info("Entering RunLoop, ready to accept XPC connections");
}

}  // namespace quillmark
