#include "platform/clock.h"
#include "quill/CommandSteps.h"
#include "quill/Failures.h"
#include "quill/IndexWait.h"
#include "quill/QuillCommands.h"
#include "quill/VolumeChoice.h"

namespace quillmark::cli {
namespace {

Answer<std::string> create(CommandContext& context, const std::string& volume, const std::string& label) {
  return ask(context, "taking a snapshot", CreateSnapshot{.volumeUUID = volume, .label = label});
}

int createIndexed(CommandContext& context, const std::string& volume, const std::string& label) {
  requireIndexing(context, volume);
  auto created = create(context, volume, label);
  // As JSON the value is one, and told at the end.
  if (!context.output.json()) printResult(context, "name", created.value, created.warning);
  int exitCode = exitDone;
  try {
    IndexFollower follower(context, {volume});
    waitForIndex(context, follower, volume, created.value);
  } catch (const Error& failure) {
    if (!context.output.json()) throw;
    created.warning = failure;
    exitCode = exitCodeOf(failure);
  }
  if (context.output.json()) printResult(context, "name", created.value, created.warning);
  return exitCode;
}

}  // namespace

int run(CommandContext& context, const CreateRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  if (request.waitIndex) return createIndexed(context, volume, request.label);
  const auto created = create(context, volume, request.label);
  printResult(context, "name", created.value, created.warning);
  if (context.output.forTerminal() && !context.output.json()) glanceAtIndex(context, volume, created.value);
  return exitDone;
}

int run(CommandContext& context, const SafetyRequest& request) {
  const std::string volume = chooseVolume(context.volumes, request.volume);
  const CreateSafetySnapshot call{.volumeUUID = volume, .label = request.label};
  const auto created = ask(context, "taking a safety snapshot", call);
  printResult(context, "name", created.value, created.warning);
  return exitDone;
}

}  // namespace quillmark::cli
