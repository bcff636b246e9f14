// SimProcesses: programs that follow a script, in virtual time.
//
//   processes.script("/usr/sbin/diskutil", [](const ProcessRequest&) { return SimProgram{.output = "..."}; });
//
// A path without a script can't be started. Pipes hold any amount; a program sees no signal but TERM and KILL.
// Ownership: borrows the dispatch. Children share what they need and may outlive it.
// Threads:   thread-safe over the dispatch's threads.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Process.h"
#include "platform/dispatch.h"

namespace quillmark::sim {

struct SimProgram {
  std::string output;
  std::string errors;
  int status = 0;
  std::chrono::nanoseconds outputAfter{0};
  std::chrono::nanoseconds endsAfter{0};
  bool endsByItself = true;
  bool ignoresTerminate = false;
  bool ignoresKill = false;           // stuck in the kernel
  bool keepsPipesOpen = false;        // a child of its own holds them when it has ended
  bool echoesInput = false;           // to its output; ends when its input does
  std::optional<int> readError = {};  // reading its output gives this errno
  std::optional<std::string> launchError = {};
};

class SimProcesses final : public Processes {
 public:
  using Script = std::function<SimProgram(const ProcessRequest&)>;

  explicit SimProcesses(Dispatch& dispatch);
  ~SimProcesses() override;

  // Replaces the path's script.
  void script(const std::string& path, Script script);
  // Every launch that was tried, in order.
  [[nodiscard]] std::vector<ProcessRequest> launches() const;

  std::unique_ptr<ChildProcess> prepare(ProcessRequest request) override;

  struct Table;

 private:
  Dispatch& dispatch_;
  const std::shared_ptr<Table> table_;
};

}  // namespace quillmark::sim
