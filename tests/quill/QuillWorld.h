// A world for quill in tests: a scripted helper, volumes and a terminal in memory.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/sim/SimPosix.h"
#include "platform/sim/Simulation.h"
#include "quill/Quill.h"
#include "scheduling/VolumeFreeSpaceState.h"
#include "scheduling/rules/HelperSettings.h"
#include "scheduling/rules/SchedulePolicy.h"
#include "wire/Commands.h"
#include "wire/Records.h"
#include "wire/Rpc.h"

namespace quillmark::cli {

inline const std::string dataUUID = "A9BE83C9-2A01-4F91-BDFF-297973E90A78";
inline const std::string homeUUID = "105E7DF1-FE4D-0C4D-86DF-B8688302286A";

[[nodiscard]] APFSVolume volumeNamed(const std::string& name, const std::string& uuid, const std::string& bsdName,
                                     const std::string& mountPath);
[[nodiscard]] SnapshotRecord snapshotNamed(const std::string& name, std::uint64_t xid);
// "com.harrowfern.Quillmark.manual.<day>T00-00-00Z[.<label>]"
[[nodiscard]] std::string manualName(const std::string& day, const std::string& label = "");

struct FakeVolumes final : LocalVolumes {
  std::vector<APFSVolume> volumes;
  std::map<std::string, Place> places;
  Place current;
  std::vector<std::string> mounts;

  std::vector<APFSVolume> list(bool) override { return volumes; }
  Place at(const std::string& path) override { return places[path]; }
  Place here() override { return current; }
  std::vector<std::string> mountPoints() override { return mounts; }
  std::string absolutePath(const std::string& path) override { return path.starts_with('/') ? path : "/here/" + path; }
};

// The helper's end, which reads requests as the service does.
struct ScriptedHelper {
  template <class Command>
  void on(std::function<RpcReply(const Command&)> answer) {
    answers[std::string(Command::traits.selector)] = [answer](const RpcCall& call) {
      return answer(commandFrom<Command>(call.arguments));
    };
  }
  // What comes back for a request line, pushes first.
  [[nodiscard]] std::vector<std::string> reply(const std::string& line);

  std::map<std::string, std::function<RpcReply(const RpcCall&)>> answers;
  std::vector<std::string> calls;   // selectors, the protocol's version left out
  std::vector<std::string> pushes;  // sent before each reply
  std::vector<std::string> later;   // sent behind the first reply; the connection ends after the last of them
  std::function<void(std::chrono::nanoseconds)> whileSilent = [](auto) {};  // a client waited so long in vain
  std::optional<Error> unreachable;                                         // thrown on connecting
  std::size_t callsUntilGone = 1000000;                                     // the connection then ends without a reply
};

class HelperEnd final : public ClientChannel {
 public:
  explicit HelperEnd(ScriptedHelper& helper) : helper_(helper) {}
  void send(std::string_view line) override;
  std::string receive(std::chrono::nanoseconds timeout) override;

 private:
  ScriptedHelper& helper_;
  std::vector<std::string> waiting_;
};

struct TextInMemory final : TextSink {
  std::string output, errors;
  std::optional<std::size_t> reads;
  void write(Stream stream, std::string_view text) override {
    if (stream == Stream::errors) return void(errors += text);
    if (readerGone()) return;
    output += text;
    if (reads) --*reads;
  }
  bool readerGone() const override { return reads == 0; }
};

struct Result {
  int exitCode;
  std::string output, errors;
};

// One volume "Data", two snapshots on it, a helper that serves everything.
class QuillWorld {
 public:
  QuillWorld();
  [[nodiscard]] Result run(const std::vector<std::string>& arguments);
  // With more words behind them.
  [[nodiscard]] Result run(std::vector<std::string> arguments, const std::vector<std::string>& more);

  FakeVolumes volumes;
  ScriptedHelper helper;
  std::vector<SnapshotRecord> snapshots;
  std::map<std::string, SchedulePolicy> schedules;  // by lower-case UUID, as the helper keeps them
  HelperSettings settings;
  HelperHealthStatus health;
  std::vector<VolumeFreeSpaceState> freeSpace;
  std::vector<UnservedSubvolumesRecord> unserved;
  std::string input;  // standard input
  TerminalFacts terminal;
  sim::Simulation simulation;
  sim::SimPosix posix;
  HostPaths paths;
  std::optional<bool> answer;          // of a person who is asked; absent where nobody sits there
  std::vector<std::string> questions;  // that were put
  Admission admission;
  int timesPaged = 0;
  // What happens while more is waited for; false: the person has had enough.
  std::function<bool()> whileWaiting = [] { return false; };
  // Written past the client, of the activity log's directory.
  void append(const std::string& file, const std::string& text) const;
  std::optional<std::size_t> reads;  // this many writes to standard output are read, then the reader goes away

 private:
  void serveBatches();
  void serveSchedules();
};

}  // namespace quillmark::cli
