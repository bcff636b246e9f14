#include "snapshots/BoundedProcessRunner.h"

#include <fmt/format.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "base/Error.h"
#include "platform/Process.h"
#include "platform/dispatch.h"

namespace quillmark {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t chunkSize = 65536;
constexpr auto terminationGrace = 2s;
constexpr auto killGrace = 2s;
constexpr auto readerGrace = 1s;

// What one stream gave.
struct DataBox {
  std::string value;
  bool truncated = false;
  std::optional<std::string> readError;
  std::size_t limit = 0;
};

// One run. Shared by the caller, the readers and the exit callback: an abandoned reader may outlive run().
struct Run {
  Run(Dispatch& dispatch, std::size_t limit)
      : output(dispatch, DataBox{.limit = limit}), errors(dispatch, DataBox{.limit = limit}), readers(dispatch),
        ended(dispatch) {}

  std::unique_ptr<ChildProcess> process;
  Guarded<DataBox> output;
  Guarded<DataBox> errors;
  Group readers;
  Semaphore ended;
};

using Reader = SysResult<std::size_t> (ChildProcess::*)(std::span<std::byte>);

// Reads on past the limit, so that the child never blocks on a full pipe.
void drain(ChildProcess& process, Reader read, Guarded<DataBox>& box) {
  std::array<std::byte, chunkSize> chunk;
  while (true) {
    const SysResult<std::size_t> got = (process.*read)(chunk);
    if (!got) {
      if (got.error() == EINTR) continue;
      box.with([&](DataBox& data) { data.readError = errnoText(got.error()); });
      return;
    }
    if (*got == 0) return;
    box.with([&](DataBox& data) {
      const std::size_t fits = std::min(*got, data.limit - data.value.size());
      data.value.append(reinterpret_cast<const char*>(chunk.data()), fits);
      if (fits < *got) data.truncated = true;
    });
  }
}

void startReader(const std::shared_ptr<Run>& run, Queue& queue, Reader read, Guarded<DataBox> Run::*box) {
  run->readers.enter();
  queue.async([run, read, box] {
    drain(*run->process, read, (*run).*box);
    run->readers.leave();
  });
}

DataBox copyOf(Guarded<DataBox>& box) {
  return box.with([](DataBox& data) { return data; });
}

// Closes the pipes under readers that a child of the process keeps waiting; true when they ended.
bool endReaders(Run& run) {
  run.process->closeOutputs();
  return run.readers.waitFor(readerGrace);
}

BoundedProcessRunner::Output finished(Run& run, std::size_t limit, std::chrono::nanoseconds timeLeft) {
  if (!run.readers.waitFor(std::max<std::chrono::nanoseconds>(timeLeft, readerGrace))) {
    const bool ended = endReaders(run);
    return {BoundedProcessRunner::unreadableOutput, ended ? copyOf(run.output).value : std::string(),
            "Process output pipes did not close after termination", false};
  }
  DataBox output = copyOf(run.output), errors = copyOf(run.errors);
  if (output.truncated || errors.truncated) {
    return {BoundedProcessRunner::tooMuchOutput, std::move(output.value),
            fmt::format("Process output exceeded the {}-byte limit", limit), false};
  }
  if (const auto& readError = output.readError ? output.readError : errors.readError) {
    return {BoundedProcessRunner::unreadableOutput, std::move(output.value),
            "Could not read process output: " + *readError, false};
  }
  return {run.process->exitStatus(), std::move(output.value), std::move(errors.value), false};
}

// Ends a process past its deadline by ever stronger means, and answers with what it said.
BoundedProcessRunner::Output overdue(Run& run, double timeout) {
  run.process->closeInput();
  run.process->terminate();
  bool gone = run.ended.waitFor(terminationGrace);
  if (!gone) {
    run.process->kill();
    gone = run.ended.waitFor(killGrace);
  }
  if (!gone) run.process->closeOutputs();
  BoundedProcessRunner::Output result{
      BoundedProcessRunner::deadlinePassed, "",
      fmt::format("Process exceeded its {}-second deadline", static_cast<long>(timeout)), true};
  // A grandchild can hold the pipes open for ever, so that readers are waited for with a bound on every road.
  bool readersEnded = run.readers.waitFor(readerGrace);
  if (!readersEnded && gone) readersEnded = endReaders(run);
  if (readersEnded) result.standardOutput = copyOf(run.output).value;
  return result;
}

}  // namespace

BoundedProcessRunner::Output BoundedProcessRunner::run(const std::string& path, std::vector<std::string> arguments,
                                                       const std::optional<std::string>& input, double timeout,
                                                       std::size_t outputLimit) {
  const auto run = std::make_shared<Run>(dispatch_, outputLimit);
  run->process = processes_.prepare({path, std::move(arguments), input.has_value()});
  const std::shared_ptr<Queue> background = dispatch_.global(QualityOfService::userInitiated);
  startReader(run, *background, &ChildProcess::readOutput, &Run::output);
  startReader(run, *background, &ChildProcess::readErrors, &Run::errors);

  // Weak: the process owns the callback.
  run->process->onExit([weak = std::weak_ptr(run)] {
    if (const auto alive = weak.lock()) alive->ended.signal();
  });
  const MonotonicTime deadline = dispatch_.clock().monotonic() +
                                 std::chrono::duration_cast<std::chrono::nanoseconds>(Seconds(std::max(timeout, 0.0)));
  if (const std::optional<std::string> failure = run->process->launch()) {
    run->readers.wait();
    return {couldNotStart, copyOf(run->output).value, *failure, false};
  }
  if (input) {
    // On the side, so that a process that never reads can't hold the caller past the deadline.
    background->async([run, text = *input] {
      (void)run->process->writeInput(text);
      run->process->closeInput();
    });
  }
  const bool inTime = timeout > 0 && run->ended.waitFor(deadline - dispatch_.clock().monotonic());
  return inTime ? finished(*run, outputLimit, deadline - dispatch_.clock().monotonic()) : overdue(*run, timeout);
}

}  // namespace quillmark
