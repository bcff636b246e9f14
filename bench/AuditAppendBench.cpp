// The durable append of an audit record through ActivityLog, against a bare open, append, fsync and close of the same
// bytes, in turns in one directory of the machine's own file system.
//
// Goal: at most 1.5 times the bare calls. The directory is made in $TMPDIR, else in /var/tmp.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "journal/ActivityLog.h"
#include "platform/HostPaths.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/Posix.h"
#include "platform/sim/SimPlatformLog.h"

namespace quillmark {
namespace {

HelperEvent sampleEvent(Date now) {
  HelperEvent event;
  event.id = "0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0";
  event.timestamp = now;
  event.kind = HelperEvent::Kind::createSnapshot;
  event.client = HelperEvent::Client::cli;
  event.user = "ada";
  event.volumeName = "Data";
  event.volumeUUID = "00112233-4455-6677-8899-AABBCCDDEEFF";
  event.snapshotName = "com.harrowfern.Quillmark.manual.2026-03-01T12-00-00Z";
  event.detail = "before the upgrade";
  event.succeeded = true;
  event.durationMs = 31;
  return event;
}

class TemporaryDirectory final {
 public:
  TemporaryDirectory() {
    const char* place = std::getenv("TMPDIR");
    path_ = std::string(place ? place : "/var/tmp") + "/quillmark-audit-XXXXXX";
    if (!::mkdtemp(path_.data())) std::abort();
  }
  ~TemporaryDirectory() { std::filesystem::remove_all(path_); }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

void bareAppend(const std::string& path, const std::string& line) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0 || ::write(fd, line.data(), line.size()) != std::ssize(line) || ::fsync(fd) != 0) std::abort();
  ::close(fd);
}

double median(std::vector<double>& values) {
  std::nth_element(values.begin(), values.begin() + std::ssize(values) / 2, values.end());
  return values[values.size() / 2];
}

void BM_AuditAppendAgainstBare(benchmark::State& state) {
  const TemporaryDirectory directory;
  os::LinuxClock clock;
  os::LinuxPosix posix;
  os::LinuxDispatch dispatch(clock);
  sim::SimPlatformLog log;
  ActivityLog activity(dispatch, posix, log, HostPaths{.sharedDirectory = directory.path() + "/log"});
  const HelperEvent event = sampleEvent(clock.now());
  const std::string line = encodeJson(event) + "\n";
  const std::string barePath = directory.path() + "/bare";
  const auto seconds = [&](auto work) {
    const MonotonicTime from = clock.monotonic();
    work();
    return std::chrono::duration<double>(clock.monotonic() - from).count();
  };
  const auto append = [&] {
    if (activity.append(event)) std::abort();
  };
  append();
  bareAppend(barePath, line);
  std::vector<double> bare, audit;
  for (auto _ : state) {
    // Whoever comes second in a turn finds the disk at another moment.
    if (bare.size() % 2 == 0) bare.push_back(seconds([&] { bareAppend(barePath, line); }));
    audit.push_back(seconds(append));
    if (bare.size() < audit.size()) bare.push_back(seconds([&] { bareAppend(barePath, line); }));
  }
  const double bareMedian = median(bare), auditMedian = median(audit);
  state.counters["bare_us"] = bareMedian * 1e6;
  state.counters["audit_us"] = auditMedian * 1e6;
  state.counters["audit_ratio"] = auditMedian / bareMedian;
}
BENCHMARK(BM_AuditAppendAgainstBare)->Iterations(1001)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillmark
