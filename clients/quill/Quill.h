// quill from its arguments to its exit code, over whatever world it is given.
// Ownership: borrows the world.
// Threads:   one thread.
// Errors:    none; every failure is told and becomes an exit code.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/HostPaths.h"
#include "platform/Transport.h"
#include "platform/clock.h"
#include "platform/posix.h"
#include "platform/random.h"
#include "quill/Admission.h"
#include "quill/LocalVolumes.h"
#include "quill/Output.h"

namespace quillmark::cli {

struct World {
  TextSink& sink;
  TerminalFacts terminal;
  Clock& clock;  // in the person's time zone
  LocalVolumes& volumes;
  const HostPaths& paths;
  // Another socket than the service's own, where one was asked for. Throws Error in the POSIX domain.
  std::function<std::unique_ptr<ClientChannel>(const std::optional<std::string>& socket)> connect;
  std::function<std::shared_ptr<void>(const std::string& text)> busy;
  Posix& posix;
  Random& random;
  std::function<bool(const std::string& question)> confirm;  // empty where nobody can be asked
  std::function<bool()> waitForMore;
  std::function<std::string()> input;
  std::function<void()> endAtInterrupt;
  std::function<void()> leaveIndexingAtInterrupt;
  std::function<Admission()> admission;
  std::function<std::shared_ptr<void>()> page;
};

// Arguments as bytes, without the program's name.
[[nodiscard]] int runQuill(const std::vector<std::string>& arguments, World& world);

}  // namespace quillmark::cli
