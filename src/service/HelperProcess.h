// HelperProcess: one running service, with everything that the system calls process-wide as a member. main makes one; a
// test makes as many as it likes.
// Ownership: owns the environment, borrows the platform.
#pragma once

#include <functional>

#include "platform/Platform.h"
#include "service/HelperEnvironment.h"
#include "service/HelperListener.h"
#include "service/HelperLogWriter.h"

namespace quillmark {

class HelperProcess final {
 public:
  struct Options {
    HelperLogWriter::Rotation logRotation = HelperLogWriter::Rotation::never;
    std::string executable = "?";  // for the log
    std::function<void()> exitProcess;
    std::vector<HealthNote> healthNotes = {};
  };
  HelperProcess(const Platform& platform, Options options);

  // Everything up to serving. Throws Error when the place to listen on can't be had.
  void start();
  // Starts the drain, as a client's request would.
  void requestQuit() { (void)environment_.shutdown.requestQuit(); }
  [[nodiscard]] HelperEnvironment& environment() { return environment_; }
  [[nodiscard]] HelperLog& log() { return log_; }

 private:
  const Platform platform_;
  const Options options_;
  HelperLogWriter log_;
  HelperEnvironment environment_;
  HelperListener listener_;
};

}  // namespace quillmark
