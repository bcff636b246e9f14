// IndexFollower: shows how the indexing of one or several volumes goes on, from what the helper pushes, and tells of
// each snapshot that is done. At a terminal a bar, anywhere else a line now and then; as JSON nothing.
//
//   IndexFollower follower(context, {volumeUUID});
//   ... calls of the helper ...
//   follower.followUntil([&] { return isIndexed(...); });
//
// Ownership: borrows the context; listens to its connection as long as it lives.
// Threads:   one thread at a time.
// Errors:    those of the connection.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "quill/HelperConnection.h"
#include "quill/IndexRecords.h"
#include "quill/IndexText.h"
#include "quill/LiveLine.h"
#include "quill/PushLine.h"
#include "quill/QuillCommands.h"
#include "wire/Records.h"

namespace quillmark::cli {

class IndexFollower final : private HelperConnection::Listener {
 public:
  IndexFollower(CommandContext& context, const std::vector<std::string>& volumeUUIDs);
  ~IndexFollower() override;
  IndexFollower(const IndexFollower&) = delete;
  IndexFollower& operator=(const IndexFollower&) = delete;

  // Asks again and again, no more often than things happen: when a run ended, and when nothing was heard for a while.
  void followUntil(const std::function<bool()>& isOver);
  // False when that wasn't so within the time.
  bool followUntil(const std::function<bool()>& isOver, std::chrono::nanoseconds most);
  [[nodiscard]] bool isRunning() const { return !runs_.empty(); }
  // True once anything was heard of the volumes.
  [[nodiscard]] bool heardAnything() const { return heardAnything_; }

 private:
  struct Volume {
    std::map<Xid, SnapshotRecord> snapshots;
    std::optional<std::int64_t> expected;  // files
  };
  struct Run {
    std::string volume;
    Xid xid;
    std::int64_t files = 0;
    MonotonicTime began;
    MonotonicTime countedAt;
    MonotonicTime toldAt;
  };

  void told(const RpcIncoming& push) override;
  void quiet() override;
  void learn(const std::string& volumeUUID);
  void draw(const Run& run);
  void tellEnd(const Run& run);
  void say(const std::string& text);
  [[nodiscard]] std::string nameOf(const Run& run) const;

  CommandContext& context_;
  HelperConnection& helper_;
  const std::unique_ptr<LiveLine> live_;
  std::map<std::string, Volume> volumes_;  // by lower-case UUID
  std::map<std::string, Run> runs_;
  std::set<std::string> unknown_;  // volumes of which a snapshot was heard of that isn't known
  bool somethingEnded_ = false;
  bool heardAnything_ = false;
};

}  // namespace quillmark::cli
