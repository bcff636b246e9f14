// LinuxTransport: the listener on a unix stream socket, with one loop thread for all its connections.
// Ownership: borrows the dispatch, which must outlive it. Its end closes every connection.
// Threads:   the loop reads and clears up; each connection calls back on its own queue.
// Bounds:    besides those of Transport.h, connections in all: a fifth of the descriptors that the process may have, read
//            at each accept. Out of descriptors, a new connection is closed at once; it never keeps the loop busy.
#pragma once

#include <map>
#include <memory>
#include <optional>

#include "base/UniqueFd.h"
#include "platform/Transport.h"
#include "platform/dispatch.h"

namespace quillmark::os {

class LinuxConnection;
struct TransportPoll;

struct LinuxTransportOptions {
  std::string path;
  TransportLimits limits = {};
  // A socket that somebody else listens with already; else one is made at the path.
  UniqueFd listening = {};
};

class LinuxTransport final : public TransportListener {
 public:
  LinuxTransport(Dispatch& dispatch, LinuxTransportOptions options);
  ~LinuxTransport() override;
  LinuxTransport(const LinuxTransport&) = delete;
  LinuxTransport& operator=(const LinuxTransport&) = delete;

  void resume(Accept accept) override;

 private:
  class Loop;

  Dispatch& dispatch_;
  LinuxTransportOptions options_;
  std::shared_ptr<Loop> loop_;
};

}  // namespace quillmark::os
