// SnapshotChangePush: tells clients that a volume's snapshots changed, a burst of changes once.
// Threads: thread-safe.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "base/Uuid.h"
#include "platform/dispatch.h"

namespace quillmark {

class ClientConnections;

class SnapshotChangePush final : public std::enable_shared_from_this<SnapshotChangePush> {
 public:
  SnapshotChangePush(Dispatch& dispatch, ClientConnections& connections);
  // One push for the volume in 300 milliseconds, unless one is on its way.
  void schedule(const std::string& volumeUUID);

 private:
  void send(const VolumeUuid& volume);

  ClientConnections& connections_;
  const std::shared_ptr<Queue> queue_;
  Guarded<std::set<VolumeUuid>> pending_;
};

}  // namespace quillmark
