// Processes: starting another program and talking to it through pipes.
// Threads: thread-safe; reads of the two streams, the write and the signals may run side by side.
// Nothing here has a deadline: BoundedProcessRunner adds that.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/SysResult.h"
#include "base/UniqueFunction.h"

namespace quillmark {

struct ProcessRequest {
  std::string path;
  std::vector<std::string> arguments;  // without the program's own name
  bool wantsInput = false;             // else standard input is empty
};

// Ownership: dropping it closes its pipes and, when the process still runs, leaves it to end by itself.
class ChildProcess {
 public:
  virtual ~ChildProcess() = default;

  // Called once when the process has ended, on a thread of the backend. Install before launch().
  virtual void onExit(UniqueFunction<void()> callback) = 0;
  // The platform's error text when the process could not be started; its output streams are then at their end.
  [[nodiscard]] virtual std::optional<std::string> launch() = 0;

  // Wait for bytes; 0 at the end of the stream. EBADF after closeOutputs().
  [[nodiscard]] virtual SysResult<std::size_t> readOutput(std::span<std::byte> into) = 0;
  [[nodiscard]] virtual SysResult<std::size_t> readErrors(std::span<std::byte> into) = 0;
  // Waits until all is written; EPIPE when the process closed its end, ECANCELED after closeInput().
  [[nodiscard]] virtual SysStatus writeInput(std::string_view bytes) = 0;
  virtual void closeInput() = 0;
  // Ends waiting reads as well.
  virtual void closeOutputs() = 0;

  virtual void terminate() = 0;  // SIGTERM
  virtual void kill() = 0;       // SIGKILL
  // Needs an ended process. The exit status; for one ended by a signal, the signal's number.
  [[nodiscard]] virtual int exitStatus() = 0;
};

class Processes {
 public:
  virtual ~Processes() = default;
  [[nodiscard]] virtual std::unique_ptr<ChildProcess> prepare(ProcessRequest request) = 0;
};

}  // namespace quillmark
