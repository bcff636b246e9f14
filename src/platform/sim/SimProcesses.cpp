#include "platform/sim/SimProcesses.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "base/Error.h"

namespace quillmark::sim {

struct SimProcesses::Table {
  explicit Table(Threads& threads) : mutex(threads) {}
  Mutex mutex;
  std::map<std::string, Script> scripts GUARDED_BY(mutex);
  std::vector<ProcessRequest> launches GUARDED_BY(mutex);
};

namespace {

// What the program and its owner share.
class SimRun final : public std::enable_shared_from_this<SimRun> {
 public:
  explicit SimRun(Dispatch& dispatch)
      : queue_(dispatch.makeQueue({.label = "simulated program"})),
        callbacks_(dispatch.global(QualityOfService::userInitiated)), mutex_(dispatch), changed_(dispatch) {}

  void onExit(Work callback) {
    MutexLock lock(mutex_);
    onExit_ = std::move(callback);
  }

  void failToLaunch() {
    MutexLock lock(mutex_);
    streamsEnded_ = true;
    changed_.notifyAll();
  }

  void start(SimProgram program) {
    MutexLock lock(mutex_);
    program_ = std::move(program);
    queue_->asyncAfter(program_.outputAfter, [self = shared_from_this()] { self->print(); });
    const bool waitsForInput = program_.echoesInput && !inputClosed_;
    if (program_.endsByItself && !waitsForInput) {
      queue_->asyncAfter(std::max(program_.endsAfter, program_.outputAfter),
                         [self = shared_from_this()] { self->end(self->ownStatus()); });
    }
  }

  [[nodiscard]] SysResult<std::size_t> read(std::string SimRun::*stream, std::span<std::byte> into) {
    MutexLock lock(mutex_);
    while ((this->*stream).empty() && !streamsEnded_ && !outputsClosed_ && !program_.readError) changed_.wait(mutex_);
    if (outputsClosed_) return Errno{EBADF};
    if (program_.readError) return Errno{*program_.readError};
    const std::size_t count = std::min(into.size(), (this->*stream).size());
    std::memcpy(into.data(), (this->*stream).data(), count);
    (this->*stream).erase(0, count);
    return count;
  }
  [[nodiscard]] SysResult<std::size_t> readOutput(std::span<std::byte> into) { return read(&SimRun::output_, into); }
  [[nodiscard]] SysResult<std::size_t> readErrors(std::span<std::byte> into) { return read(&SimRun::errors_, into); }

  [[nodiscard]] SysStatus writeInput(std::string_view bytes) {
    MutexLock lock(mutex_);
    if (inputClosed_) return Errno{ECANCELED};
    if (status_) return Errno{EPIPE};
    if (program_.echoesInput) output_ += bytes;
    changed_.notifyAll();
    return {};
  }

  void closeInput() {
    MutexLock lock(mutex_);
    if (std::exchange(inputClosed_, true) || !program_.echoesInput) return;
    queue_->asyncAfter(program_.endsAfter, [self = shared_from_this()] { self->end(self->ownStatus()); });
  }

  void closeOutputs() {
    MutexLock lock(mutex_);
    outputsClosed_ = true;
    changed_.notifyAll();
  }

  void signal(int number) {
    queue_->async([self = shared_from_this(), number] {
      if (!self->ignores(number)) self->end(number);
    });
  }

  [[nodiscard]] std::optional<int> status() {
    MutexLock lock(mutex_);
    return status_;
  }

 private:
  void print() {
    MutexLock lock(mutex_);
    if (status_) return;
    output_ += program_.output;
    errors_ += program_.errors;
    changed_.notifyAll();
  }

  [[nodiscard]] int ownStatus() {
    MutexLock lock(mutex_);
    return program_.status;
  }

  [[nodiscard]] bool ignores(int number) {
    MutexLock lock(mutex_);
    return number == SIGKILL ? program_.ignoresKill : program_.ignoresTerminate || program_.ignoresKill;
  }

  void end(int status) {
    MutexLock lock(mutex_);
    if (status_) return;
    status_ = status;
    streamsEnded_ = !program_.keepsPipesOpen;
    changed_.notifyAll();
    if (onExit_) callbacks_->async(std::exchange(onExit_, nullptr));
  }

  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<Queue> callbacks_;
  Mutex mutex_;
  ConditionVariable changed_;
  SimProgram program_ GUARDED_BY(mutex_);
  Work onExit_ GUARDED_BY(mutex_);
  std::string output_ GUARDED_BY(mutex_);
  std::string errors_ GUARDED_BY(mutex_);
  bool streamsEnded_ GUARDED_BY(mutex_) = false;
  bool outputsClosed_ GUARDED_BY(mutex_) = false;
  bool inputClosed_ GUARDED_BY(mutex_) = false;
  std::optional<int> status_ GUARDED_BY(mutex_);
};

class SimChildProcess final : public ChildProcess {
 public:
  SimChildProcess(Dispatch& dispatch, std::shared_ptr<SimProcesses::Table> table, ProcessRequest request)
      : table_(std::move(table)), request_(std::move(request)), run_(std::make_shared<SimRun>(dispatch)) {}
  ~SimChildProcess() override {
    run_->onExit(nullptr);
    run_->closeInput();
    run_->closeOutputs();
  }

  void onExit(UniqueFunction<void()> callback) override { run_->onExit(std::move(callback)); }

  std::optional<std::string> launch() override {
    std::optional<SimProgram> program = scripted();
    std::optional<std::string> error =
        program ? program->launchError : posixError("launch", request_.path, ENOENT).description();
    if (error) {
      run_->failToLaunch();
    } else {
      launched_ = true;
      if (!request_.wantsInput) run_->closeInput();
      run_->start(std::move(*program));
    }
    return error;
  }

  SysResult<std::size_t> readOutput(std::span<std::byte> into) override { return run_->readOutput(into); }
  SysResult<std::size_t> readErrors(std::span<std::byte> into) override { return run_->readErrors(into); }
  SysStatus writeInput(std::string_view bytes) override { return run_->writeInput(bytes); }
  void closeInput() override { run_->closeInput(); }
  void closeOutputs() override { run_->closeOutputs(); }
  void terminate() override { signal(SIGTERM); }
  void kill() override { signal(SIGKILL); }
  int exitStatus() override {
    const std::optional<int> status = run_->status();
    if (!status) std::abort();
    return *status;
  }

 private:
  [[nodiscard]] std::optional<SimProgram> scripted() {
    SimProcesses::Script script;
    {
      MutexLock lock(table_->mutex);
      table_->launches.push_back(request_);
      const auto found = table_->scripts.find(request_.path);
      if (found == table_->scripts.end()) return std::nullopt;
      script = found->second;
    }
    return script(request_);
  }

  void signal(int number) {
    if (launched_) run_->signal(number);
  }

  const std::shared_ptr<SimProcesses::Table> table_;
  const ProcessRequest request_;
  const std::shared_ptr<SimRun> run_;
  bool launched_ = false;
};

}  // namespace

SimProcesses::SimProcesses(Dispatch& dispatch) : dispatch_(dispatch), table_(std::make_shared<Table>(dispatch)) {}

SimProcesses::~SimProcesses() = default;

void SimProcesses::script(const std::string& path, Script script) {
  MutexLock lock(table_->mutex);
  table_->scripts[path] = std::move(script);
}

std::vector<ProcessRequest> SimProcesses::launches() const {
  MutexLock lock(table_->mutex);
  return table_->launches;
}

std::unique_ptr<ChildProcess> SimProcesses::prepare(ProcessRequest request) {
  return std::make_unique<SimChildProcess>(dispatch_, table_, std::move(request));
}

}  // namespace quillmark::sim
