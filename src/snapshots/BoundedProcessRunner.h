// BoundedProcessRunner: the one way this system starts a command, with a deadline and a cap on its output.
// Threads: thread-safe; run() blocks its caller, at most for the deadline and the six seconds that ending takes.
// Errors:  none thrown: every failure is an Output.
// Units:   seconds, bytes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace quillmark {

class Dispatch;
class Processes;

class BoundedProcessRunner final {
 public:
  struct Output {
    int status = 0;  // the exit status, or one of the failures below
    std::string standardOutput;
    std::string standardError;  // the process's, or the runner's own message
    bool timedOut = false;
  };
  static constexpr int couldNotStart = -1;
  static constexpr int deadlinePassed = -2;
  static constexpr int tooMuchOutput = -3;
  static constexpr int unreadableOutput = -4;

  BoundedProcessRunner(Dispatch& dispatch, Processes& processes) : dispatch_(dispatch), processes_(processes) {}

  [[nodiscard]] Output run(const std::string& path, std::vector<std::string> arguments,
                           const std::optional<std::string>& input, double timeout, std::size_t outputLimit);

 private:
  Dispatch& dispatch_;
  Processes& processes_;
};

}  // namespace quillmark
