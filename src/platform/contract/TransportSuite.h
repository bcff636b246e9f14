// What every TransportListener does, seen from a client.
#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <map>

#include "base/Error.h"
#include "platform/Transport.h"
#include "platform/contract/DispatchBackend.h"

namespace quillmark::contract {

// A client that a test drives.
class TestPeer {
 public:
  virtual ~TestPeer() = default;
  [[nodiscard]] virtual ClientChannel& channel() = 0;
  virtual void close() = 0;
  virtual void stopReading() = 0;

  void send(std::string_view line) { channel().send(line); }
  [[nodiscard]] std::string receive() { return channel().receive(10s); }
  [[nodiscard]] bool seesTheEnd() {
    try {
      for (;;) static_cast<void>(receive());
    } catch (const Error& error) {
      return error.code() == EPIPE;
    }
  }
};

class TransportBackend : public DispatchBackend {
 public:
  // Needs limits(); called once.
  [[nodiscard]] virtual TransportListener& listener() = 0;
  [[nodiscard]] virtual std::unique_ptr<TestPeer> connect() = 0;

  TransportLimits limits;
};

struct NamedTransportBackend {
  const char* name;
  std::unique_ptr<TransportBackend> (*make)();
  friend void PrintTo(const NamedTransportBackend& backend, std::ostream* out) { *out << backend.name; }
};

// A server that writes down what it is told and answers by the test's function.
class TestServer final {
 public:
  using Answer = std::function<void(const std::shared_ptr<TransportConnection>&, std::string)>;

  TestServer(TransportBackend& backend, Answer answer)
      : state_(std::make_shared<State>(backend.dispatch(), std::move(answer))) {
    backend.listener().resume([state = state_](const std::shared_ptr<TransportConnection>& connection) {
      connection->start({.received =
                             [state, connection](std::string line) {
                               state->events.add(line.substr(0, 40));
                               state->answer(connection, std::move(line));
                             },
                         .closed = [state](CloseReason reason) { state->events.add(name(reason)); }});
      return true;
    });
  }
  [[nodiscard]] std::vector<std::string> await(std::size_t count) { return state_->events.await(count); }
  [[nodiscard]] std::vector<std::string> all() { return state_->events.all(); }

  static std::string name(CloseReason reason) {
    static constexpr const char* names[] = {"[peer closed]", "[closed by us]", "[line too long]",
                                            "[stalled]",     "[not the peer]", "[failed]"};
    return names[static_cast<int>(reason)];
  }
  static void echo(const std::shared_ptr<TransportConnection>& connection, std::string line) {
    connection->send(std::move(line));
  }
  static void ignore(const std::shared_ptr<TransportConnection>&, std::string) {}

 private:
  struct State {
    State(Threads& threads, Answer how) : events(threads), answer(std::move(how)) {}
    Events events;
    const Answer answer;
  };
  const std::shared_ptr<State> state_;
};

class TransportSuite : public testing::TestWithParam<NamedTransportBackend> {
 protected:
  void on(TransportLimits limits, FunctionRef<void(TransportBackend&)> body) {
    backend_->limits = limits;
    backend_->run([&] { body(*backend_); });
  }

 private:
  const std::unique_ptr<TransportBackend> backend_ = GetParam().make();
};

using testing::ElementsAre;
using Lines = std::vector<std::string>;

TEST_P(TransportSuite, PipelinedLinesAreAnsweredInOrder) {
  on({}, [](TransportBackend& backend) {
    TestServer server(backend, TestServer::echo);
    const auto peer = backend.connect();
    constexpr int lines = 2000;
    for (int i = 0; i < lines; ++i) peer->send("line " + std::to_string(i));
    for (int i = 0; i < lines; ++i) ASSERT_EQ(peer->receive(), "line " + std::to_string(i));
    const std::string large(3'000'000, 'L');
    peer->send(large);
    EXPECT_EQ(peer->receive(), large);
    peer->send("");
    EXPECT_EQ(peer->receive(), "");
  });
}

TEST_P(TransportSuite, ARefusedPeerIsClosedWithNothingSaid) {
  on({}, [](TransportBackend& backend) {
    backend.listener().resume([](const auto&) { return false; });
    EXPECT_TRUE(backend.connect()->seesTheEnd());
  });
}

TEST_P(TransportSuite, NothingIsReadBeforeTheStart) {
  on({}, [](TransportBackend& backend) {
    Semaphore accepted(backend.dispatch());
    std::shared_ptr<TransportConnection> connection;
    backend.listener().resume([&](const std::shared_ptr<TransportConnection>& arrived) {
      connection = arrived;
      accepted.signal();
      return true;
    });
    const auto peer = backend.connect();
    peer->send("early");
    ASSERT_TRUE(accepted.waitFor(10s));
    Events events(backend.dispatch());
    sleepFor(backend.dispatch(), 20ms);
    connection->start({.received = [&](std::string line) { events.add(std::move(line)); },
                       .closed = [&](CloseReason reason) { events.add(TestServer::name(reason)); }});
    EXPECT_THAT(events.await(1), ElementsAre("early"));
    connection->close();
    EXPECT_THAT(events.await(2), ElementsAre("early", "[closed by us]"));
  });
}

TEST_P(TransportSuite, ALineMayBeAsLongAsTheLimitAndNoLonger) {
  const TransportLimits limits{.maxRequestBytes = 1000, .maxReplyBytes = 2000};
  const auto answer = [](const std::shared_ptr<TransportConnection>& connection, std::string line) {
    connection->send(std::string(line == "more" ? 2001 : 2000, 'r'));
  };
  on(limits, [&](TransportBackend& backend) {
    TestServer server(backend, answer);
    const auto peer = backend.connect();
    peer->send(std::string(1000, 'x'));
    EXPECT_EQ(peer->receive().size(), 2000U);
    try {
      peer->send(std::string(1001, 'x'));
    } catch (const Error&) {
    }
    EXPECT_TRUE(peer->seesTheEnd());
    EXPECT_THAT(server.await(2), ElementsAre(std::string(40, 'x'), "[line too long]"));
    const auto other = backend.connect();
    other->send("more");
    EXPECT_TRUE(other->seesTheEnd());
    EXPECT_EQ(server.await(4).back(), "[line too long]");
  });
}

// Goal:   the end of a client ends its service: what was not delivered by then never is.
TEST_P(TransportSuite, LinesOfAPeerThatClosedAreDropped) {
  on({}, [](TransportBackend& backend) {
    Semaphore goOn(backend.dispatch());
    TestServer server(backend, [&](const auto&, const std::string&) { goOn.wait(); });
    const auto peer = backend.connect();
    for (const char* line : {"one", "two", "three"}) peer->send(line);
    EXPECT_THAT(server.await(1), ElementsAre("one"));
    peer->close();
    sleepFor(backend.dispatch(), 20ms);
    goOn.signal();
    EXPECT_THAT(server.await(2), ElementsAre("one", "[peer closed]"));
    goOn.signal();
    sleepFor(backend.dispatch(), 20ms);
    EXPECT_EQ(server.all().size(), 2U);
  });
}

TEST_P(TransportSuite, CloseSendsWhatWaitsFirst) {
  const std::string large(2'000'000, 'x');
  const auto answer = [&](const std::shared_ptr<TransportConnection>& connection, const std::string&) {
    connection->send(large);
    connection->send("last");
    connection->close();
    connection->send("too late");
  };
  on({}, [&](TransportBackend& backend) {
    TestServer server(backend, answer);
    const auto peer = backend.connect();
    peer->send("go");
    EXPECT_EQ(peer->receive(), large);
    EXPECT_EQ(peer->receive(), "last");
    EXPECT_TRUE(peer->seesTheEnd());
    EXPECT_THAT(server.await(2), ElementsAre("go", "[closed by us]"));
  });
}

TEST_P(TransportSuite, APauseHoldsWhatWasReadUntilTheLastResume) {
  on({}, [](TransportBackend& backend) {
    Guarded<std::shared_ptr<TransportConnection>> paused(backend.dispatch());
    TestServer server(backend, [&](const std::shared_ptr<TransportConnection>& connection, const std::string& line) {
      if (line != "two") return;
      connection->pauseReading();
      connection->pauseReading();
      paused.with([&](auto& place) { place = connection; });
    });
    const auto peer = backend.connect();
    for (const char* line : {"one", "two", "three", "four"}) peer->send(line);
    EXPECT_THAT(server.await(2), ElementsAre("one", "two"));
    sleepFor(backend.dispatch(), 20ms);
    const auto connection = paused.with([](auto& place) { return place; });
    ASSERT_TRUE(connection);
    connection->resumeReading();
    sleepFor(backend.dispatch(), 20ms);
    EXPECT_EQ(server.all().size(), 2U);
    connection->resumeReading();
    EXPECT_THAT(server.await(4), ElementsAre("one", "two", "three", "four"));
  });
}

// Goal:   a client that doesn't read stops being served, not the memory of the server.
// Method: far more answers than may wait; count how many were made before the client reads again.
TEST_P(TransportSuite, WhileTooMuchWaitsToBeSentNothingMoreIsServed) {
  constexpr int requests = 200;
  constexpr std::size_t replyBytes = 32 * 1024;
  const auto answer = [](const std::shared_ptr<TransportConnection>& connection, const std::string&) {
    connection->send(std::string(replyBytes, 'r'));
  };
  on({.maxUnsentBytes = 128 * 1024}, [&](TransportBackend& backend) {
    TestServer server(backend, answer);
    const auto peer = backend.connect();
    peer->stopReading();
    for (int i = 0; i < requests; ++i) peer->send("more");
    EXPECT_GE(server.await(4).size(), 4U);
    sleepFor(backend.dispatch(), 100ms);
    EXPECT_LE(server.all().size(), 40U);
    for (int i = 0; i < requests; ++i) ASSERT_EQ(peer->receive().size(), replyBytes);
    EXPECT_EQ(server.await(requests).size(), static_cast<std::size_t>(requests));
  });
}

TEST_P(TransportSuite, AnEndComesToAPeerThatStopsReading) {
  const auto answer = [](const std::shared_ptr<TransportConnection>& connection, const std::string&) {
    for (int i = 0; i < 40; ++i) connection->send(std::string(100'000, 'r'));
    connection->close();
  };
  on({.stallLimit = 150ms}, [&](TransportBackend& backend) {
    TestServer server(backend, answer);
    const auto peer = backend.connect();
    peer->stopReading();
    peer->send("go");
    static_cast<void>(server.await(1));
    const MonotonicTime from = backend.dispatch().clock().monotonic();
    EXPECT_THAT(server.await(2), ElementsAre("go", "[stalled]"));
    EXPECT_GE(backend.dispatch().clock().monotonic() - from, 100ms);
  });
}

TEST_P(TransportSuite, AUserHasSoManyConnectionsAndNoMore) {
  on({.maxConnectionsPerUser = 2}, [](TransportBackend& backend) {
    TestServer server(backend, TestServer::echo);
    const auto works = [](TestPeer& peer) {
      peer.send("hello");
      return peer.receive() == "hello";
    };
    const auto first = backend.connect();
    auto second = backend.connect();
    EXPECT_TRUE(works(*first) && works(*second));
    EXPECT_TRUE(backend.connect()->seesTheEnd());
    second->close();
    EXPECT_EQ(server.await(3).back(), "[peer closed]");
    // Its place is free a moment later, when nobody holds the connection any more.
    bool worksAgain = false;
    for (int i = 0; i < 500 && !worksAgain; ++i) {
      try {
        const auto fourth = backend.connect();
        worksAgain = works(*fourth);
      } catch (const Error&) {
        sleepFor(backend.dispatch(), std::chrono::milliseconds(10));
      }
    }
    EXPECT_TRUE(worksAgain && works(*first));
  });
}

TEST_P(TransportSuite, ACallbackThatWaitsDelaysNobodyElse) {
  on({}, [](TransportBackend& backend) {
    Semaphore goOn(backend.dispatch());
    TestServer server(backend, [&](const std::shared_ptr<TransportConnection>& connection, std::string line) {
      if (line == "wait") goOn.wait();
      connection->send(std::move(line));
    });
    const auto slow = backend.connect();
    slow->send("wait");
    static_cast<void>(server.await(1));
    const auto quick = backend.connect();
    quick->send("hello");
    EXPECT_EQ(quick->receive(), "hello");
    goOn.signal();
    EXPECT_EQ(slow->receive(), "wait");
  });
}

TEST_P(TransportSuite, LinesSentFromSeveralThreadsArriveWhole) {
  constexpr int threads = 4;
  constexpr int lines = 200;
  on({}, [&](TransportBackend& backend) {
    Dispatch& dispatch = backend.dispatch();
    Group sending(dispatch);
    TestServer server(backend, [&](const std::shared_ptr<TransportConnection>& connection, const std::string&) {
      for (int i = 0; i < threads; ++i) {
        dispatch.throwAwayThread("sender", [&, i, connection] {
          for (int n = 0; n < lines; ++n) connection->send(std::string(100 * (i + 1), static_cast<char>('a' + i)));
          sending.leave();
        });
      }
    });
    for (int i = 0; i < threads; ++i) sending.enter();
    const auto peer = backend.connect();
    peer->send("go");
    std::map<std::string, int> counts;
    for (int n = 0; n < threads * lines; ++n) ++counts[peer->receive()];
    sending.wait();
    ASSERT_EQ(counts.size(), static_cast<std::size_t>(threads));
    for (const auto& [line, count] : counts) EXPECT_EQ(count, lines) << line;
  });
}

}  // namespace quillmark::contract
