// What every Processes does.
#pragma once

#include <cerrno>
#include <csignal>

#include "platform/Process.h"
#include "platform/contract/DispatchBackend.h"

namespace quillmark::contract {

enum class TestProgram {
  talksAndFails,     // "out" and "err" on its streams, exit status 3
  copiesInput,       // to its output, until the end of it
  runsOn,            // until it is told to end
  ignoresTerminate,  // says "r" when it does
  leavesAChild,      // ends at once with status 0, while its child keeps the streams open
  talksMuch,         // 1,000,000 bytes
  doesNotExist,
};

class ProcessBackend : public DispatchBackend {
 public:
  [[nodiscard]] virtual Processes& processes() = 0;
  [[nodiscard]] virtual ProcessRequest request(TestProgram program) = 0;
};

struct NamedProcessBackend {
  const char* name;
  std::unique_ptr<ProcessBackend> (*make)();
  friend void PrintTo(const NamedProcessBackend& backend, std::ostream* out) { *out << backend.name; }
};

// A child with the usual users of one: a reader for each stream and one who waits for the end.
class TestChild final {
 public:
  TestChild(ProcessBackend& backend, TestProgram program, bool wantsInput = false)
      : dispatch_(backend.dispatch()), exited_(std::make_shared<Semaphore>(dispatch_)), read_(dispatch_) {
    ProcessRequest request = backend.request(program);
    request.wantsInput = wantsInput;
    child = backend.processes().prepare(std::move(request));
    child->onExit([exited = exited_] { exited->signal(); });
  }
  ~TestChild() {
    child->kill();
    child->closeOutputs();
    read_.wait();
  }

  void startReaders() {
    startReader(output, &ChildProcess::readOutput);
    startReader(errors, &ChildProcess::readErrors);
  }
  [[nodiscard]] bool exitsWithin(std::chrono::nanoseconds span) { return exited_->waitFor(span); }
  [[nodiscard]] bool readsToTheEndWithin(std::chrono::nanoseconds span) { return read_.waitFor(span); }

  std::unique_ptr<ChildProcess> child;
  // Read them after the readers have ended; the last word of each is how its stream ended.
  std::string output;
  std::string errors;

 private:
  void startReader(std::string& into, SysResult<std::size_t> (ChildProcess::*read)(std::span<std::byte>)) {
    read_.enter();
    dispatch_.throwAwayThread("reader", [this, &into, read] {
      std::vector<std::byte> buffer(65536);
      for (;;) {
        const SysResult<std::size_t> count = (child.get()->*read)(buffer);
        if (!count) into += "[error " + std::to_string(count.error()) + "]";
        if (!count || *count == 0) break;
        into.append(reinterpret_cast<const char*>(buffer.data()), *count);
      }
      read_.leave();
    });
  }

  Dispatch& dispatch_;
  const std::shared_ptr<Semaphore> exited_;
  Group read_;
};

class ProcessSuite : public testing::TestWithParam<NamedProcessBackend> {
 protected:
  void with(TestProgram program, FunctionRef<void(TestChild&)> body, bool wantsInput = false) {
    backend_->run([&] {
      TestChild child(*backend_, program, wantsInput);
      body(child);
    });
  }
  void on(FunctionRef<void(ProcessBackend&)> body) {
    backend_->run([&] { body(*backend_); });
  }

 private:
  const std::unique_ptr<ProcessBackend> backend_ = GetParam().make();
};

TEST_P(ProcessSuite, OutputErrorsAndStatusArrive) {
  with(TestProgram::talksAndFails, [](TestChild& child) {
    child.startReaders();
    ASSERT_EQ(child.child->launch(), std::nullopt);
    ASSERT_TRUE(child.exitsWithin(10s));
    ASSERT_TRUE(child.readsToTheEndWithin(10s));
    EXPECT_EQ(child.child->exitStatus(), 3);
    EXPECT_EQ(child.output, "out");
    EXPECT_EQ(child.errors, "err");
  });
}

TEST_P(ProcessSuite, InputReachesTheProgramAndItsEndToo) {
  const auto body = [](TestChild& child) {
    child.startReaders();
    ASSERT_EQ(child.child->launch(), std::nullopt);
    const std::string much(300'000, 'i');
    EXPECT_TRUE(child.child->writeInput(much).ok());
    EXPECT_FALSE(child.exitsWithin(50ms));
    child.child->closeInput();
    ASSERT_TRUE(child.exitsWithin(10s));
    ASSERT_TRUE(child.readsToTheEndWithin(10s));
    EXPECT_EQ(child.child->exitStatus(), 0);
    EXPECT_EQ(child.output, much);
    EXPECT_EQ(child.child->writeInput("late").error(), ECANCELED);
  };
  with(TestProgram::copiesInput, body, true);
}

TEST_P(ProcessSuite, WithoutInputAProgramFindsTheEndAtOnce) {
  with(TestProgram::copiesInput, [](TestChild& child) {
    child.startReaders();
    ASSERT_EQ(child.child->launch(), std::nullopt);
    ASSERT_TRUE(child.exitsWithin(10s));
    ASSERT_TRUE(child.readsToTheEndWithin(10s));
    EXPECT_EQ(child.output, "");
  });
}

TEST_P(ProcessSuite, MuchOutputArrivesWhole) {
  with(TestProgram::talksMuch, [](TestChild& child) {
    child.startReaders();
    ASSERT_EQ(child.child->launch(), std::nullopt);
    ASSERT_TRUE(child.exitsWithin(10s));
    ASSERT_TRUE(child.readsToTheEndWithin(10s));
    EXPECT_EQ(child.output, std::string(1'000'000, 'x'));
  });
}

TEST_P(ProcessSuite, AMissingProgramFailsToLaunchAndItsStreamsEnd) {
  with(TestProgram::doesNotExist, [](TestChild& child) {
    child.startReaders();
    const std::optional<std::string> error = child.child->launch();
    ASSERT_TRUE(error.has_value());
    EXPECT_NE(error->find("No such file or directory"), std::string::npos) << *error;
    ASSERT_TRUE(child.readsToTheEndWithin(10s));
    EXPECT_EQ(child.output + child.errors, "");
    EXPECT_FALSE(child.exitsWithin(10ms));
    child.child->terminate();
  });
}

TEST_P(ProcessSuite, SignalsEndAProgramWithTheirNumberAsStatus) {
  with(TestProgram::runsOn, [](TestChild& child) {
    ASSERT_EQ(child.child->launch(), std::nullopt);
    EXPECT_FALSE(child.exitsWithin(50ms));
    child.child->terminate();
    ASSERT_TRUE(child.exitsWithin(10s));
    EXPECT_EQ(child.child->exitStatus(), SIGTERM);
    child.child->terminate();
  });
  with(TestProgram::ignoresTerminate, [](TestChild& child) {
    ASSERT_EQ(child.child->launch(), std::nullopt);
    std::byte ready[1];
    ASSERT_EQ(*child.child->readOutput(ready), 1U);
    child.child->terminate();
    EXPECT_FALSE(child.exitsWithin(200ms));
    child.child->kill();
    ASSERT_TRUE(child.exitsWithin(10s));
    EXPECT_EQ(child.child->exitStatus(), SIGKILL);
  });
}

// Goal:   readers of streams that never end can be sent home.
// Method: a program that ends while its child holds the streams.
TEST_P(ProcessSuite, ClosingTheOutputsEndsReadersThatWait) {
  with(TestProgram::leavesAChild, [](TestChild& child) {
    child.startReaders();
    ASSERT_EQ(child.child->launch(), std::nullopt);
    ASSERT_TRUE(child.exitsWithin(10s));
    EXPECT_FALSE(child.readsToTheEndWithin(50ms));
    child.child->closeOutputs();
    ASSERT_TRUE(child.readsToTheEndWithin(10s));
    EXPECT_EQ(child.output, "[error " + std::to_string(EBADF) + "]");
    EXPECT_EQ(child.errors, child.output);
    std::byte buffer[8];
    EXPECT_EQ(child.child->readOutput(buffer).error(), EBADF);
  });
}

TEST_P(ProcessSuite, WritingToAProgramThatHasEndedFailsQuietly) {
  const auto body = [](TestChild& child) {
    ASSERT_EQ(child.child->launch(), std::nullopt);
    child.child->kill();
    ASSERT_TRUE(child.exitsWithin(10s));
    EXPECT_EQ(child.child->writeInput("nobody reads this").error(), EPIPE);
  };
  with(TestProgram::runsOn, body, true);
}

TEST_P(ProcessSuite, AChildThatIsDroppedCallsBackNoMore) {
  on([](ProcessBackend& backend) {
    Semaphore called(backend.dispatch());
    auto child = backend.processes().prepare(backend.request(TestProgram::runsOn));
    child->onExit([&] { called.signal(); });
    ASSERT_EQ(child->launch(), std::nullopt);
    child->kill();
    ASSERT_TRUE(called.waitFor(10s));
    child = backend.processes().prepare(backend.request(TestProgram::copiesInput));
    child->onExit([&] { called.signal(); });
    child.reset();
    EXPECT_FALSE(called.waitFor(50ms));
  });
}

}  // namespace quillmark::contract
