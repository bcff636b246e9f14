#include <algorithm>
#include <initializer_list>

#include "base/HelperLog.h"
#include "service/Handlers.h"
#include "service/HelperEnvironment.h"
#include "service/HelperService.h"
#include "wire/Json.h"
#include "wire/QuillmarkError.h"

namespace quillmark {
namespace {

using Client = HelperEvent::Client;

// False for any other kind of client, which has its answer then.
bool admits(CommandRun& run, std::initializer_list<Client> allowed, const char* refusal) {
  if (std::find(allowed.begin(), allowed.end(), run.service().client()) != allowed.end()) return true;
  run.refuse(QuillmarkError::make(QuillmarkErrorCode::insufficientPrivileges, refusal));
  return false;
}

HelperSettings currentOrDefaults(HelperEnvironment& environment) {
  return environment.settings.current().value_or(HelperSettings());
}

bool haveSameExclusions(const HelperSettings& a, const HelperSettings& b) {
  return a.excludedPathRules == b.excludedPathRules && a.excludedDirectoryNames == b.excludedDirectoryNames;
}

}  // namespace

void handle(CommandRun& run, const GetHelperSettings&) {
  run.replyData(encodeJson(currentOrDefaults(run.environment())));
}

void handle(CommandRun& run, const SetHelperSettings& call) {
  if (!admits(run, {Client::gui, Client::cli}, "This client is not authorized to change helper settings.")) return;
  HelperEnvironment& environment = run.environment();
  const auto settings = decodeJson<HelperSettings>(call.settings.text);
  const HelperSettings previous = currentOrDefaults(environment);
  const HelperSettings stored = environment.settings.update(settings);
  run.replyData(encodeJson(stored));
  if (haveSameExclusions(previous, stored)) return;
  environment.log.info(
      "setHelperSettings: exclusion rules changed; they apply from the next scan onward (existing indexes kept)");
}

void handle(CommandRun& run, const ForwardNotification& call) {
  if (!admits(run, {Client::gui}, "Only the Quillmark app may forward notifications.")) return;
  run.environment().notifications.offer(decodeJson<HelperNotification>(call.notification.text));
  run.replyNothing();
}

}  // namespace quillmark
