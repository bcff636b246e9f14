// SimDirectoryReader: reads the trees of simulated volumes where they are mounted, and of their snapshots wherever those
// are. What goes wrong, and what happens meanwhile, a test says.
//
//   SimDirectoryReader reader(volumes);
//   reader.fail(DirectoryCall::open, "/Volumes/Data/private", EACCES);
// Ownership: borrows the volumes. Threads: thread-safe; the watcher runs outside the lock and may wait.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/UniqueFunction.h"
#include "platform/DirectoryReader.h"
#include "platform/linux/Threads.h"
#include "platform/sim/SimVolumes.h"

namespace quillmark::sim {

enum class DirectoryCall {
  openTree,
  openWhole,
  readPiece,
  finish,
  open,
  readRecords,
  opendir,
  readNames,
  lstat,
  isDataless,
  generationOf,
  layoutOf,
};

// What a file's layout gives: the runs one after the other; past them, the error.
struct SimLayout {
  std::int64_t size = 0;
  std::int64_t changedNS = 0;
  std::vector<FileLayout::Run> runs;
  int error = 0;
};

class SimDirectoryReader final : public DirectoryReader {
 public:
  explicit SimDirectoryReader(SimVolumes& volumes) : volumes_(volumes) {}

  // Calls of this kind for this path fail so, again and again unless it is said how often.
  void fail(DirectoryCall call, const std::string& path, int error, std::optional<int> times = {});
  // Told each call with its path before it is done.
  void watchCalls(UniqueFunction<void(DirectoryCall, const std::string&)> watcher);
  void setLayout(const std::string& path, SimLayout layout);
  void setGeneration(const std::string& path, std::uint64_t generation);
  // Whether trees of snapshots are offered as a whole; they are unless this says no.
  void setOffersWhole(bool offers);
  // How long reading a piece of a whole tree is said to have waited for the disk.
  void setWaited(std::chrono::nanoseconds waited);
  void setOwnPlace(std::string name);
  void setProcessorCount(unsigned count);
  void setMemorySize(std::uint64_t bytes);
  // What a descriptor of somebody else's names; without it none names anything.
  void setPathOf(std::function<std::string(int)> pathOf);

  [[nodiscard]] int openNow();
  [[nodiscard]] int loweredNow();
  [[nodiscard]] int loweredEver();

  SysResult<std::unique_ptr<OpenTree>> openTree(const std::string& root) override;
  SysResult<std::unique_ptr<OpenTree>> openItem(int fd) override;
  unsigned processorCount() override;
  std::uint64_t memorySize() override;
  std::unique_ptr<LowPriority> lowerPriority() override;

 private:
  class Tree;
  class Whole;
  class Directory;
  class Layout;
  class Lowered;
  // Counts an open object as long as it lives.
  class Opened final {
   public:
    explicit Opened(SimDirectoryReader& reader) : reader_(reader) { reader_.count(1); }
    ~Opened() { reader_.count(-1); }
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;

   private:
    SimDirectoryReader& reader_;
  };
  struct Failure {
    int error = 0;
    std::optional<int> times;
  };
  struct Settings {
    bool offersWhole = true;
    std::chrono::nanoseconds waited{};
    std::string ownPlace;
    unsigned processors = 4;
    std::uint64_t memory = ~std::uint64_t{0};
    std::function<std::string(int)> pathOf;
  };

  [[nodiscard]] SysStatus begin(DirectoryCall call, const std::string& path);
  void count(int change);
  void countLowered(int change);
  [[nodiscard]] std::optional<SimLayout> layoutAt(const std::string& path);
  [[nodiscard]] std::optional<std::uint64_t> generationAt(const std::string& path);
  [[nodiscard]] Settings settings();

  SimVolumes& volumes_;
  os::NativeMutex mutex_;
  std::map<std::pair<DirectoryCall, std::string>, Failure> failures_ GUARDED_BY(mutex_);
  std::shared_ptr<UniqueFunction<void(DirectoryCall, const std::string&)>> watcher_ GUARDED_BY(mutex_);
  std::map<std::string, SimLayout> layouts_ GUARDED_BY(mutex_);
  std::map<std::string, std::uint64_t> generations_ GUARDED_BY(mutex_);
  Settings settings_ GUARDED_BY(mutex_);
  int open_ GUARDED_BY(mutex_) = 0;
  int loweredNow_ GUARDED_BY(mutex_) = 0;
  int loweredEver_ GUARDED_BY(mutex_) = 0;
};

}  // namespace quillmark::sim
