// ScannerMachine: a simulated volume and its snapshot, for the scanner to walk on real threads.
#pragma once

#include <gtest/gtest.h>

#include <map>

#include "base/Error.h"
#include "history/SnapshotScanner.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/sim/SimDirectoryReader.h"

namespace quillmark {

using sim::SimTree;
// Of a scan, by path.
using Tree = std::map<std::string, SnapshotIndex::Facts>;

inline const std::string live = "/Volumes/Data", snapshot = "/mounts/snapshot";

// A volume, which is read by its directories, and a snapshot of it, which is read as a whole.
class ScannerMachine final {
 public:
  ScannerMachine() { volumes_.add(sim::makeSimVolume(uuid_, "Data", live)); }

  void edit(FunctionRef<void(SimTree&)> work) {
    volumes_.change(uuid_, [&](sim::SimVolume& volume) { work(volume.tree); });
  }
  void freeze() {
    ASSERT_TRUE(volumes_.addSnapshot(uuid_, "snapshot", Date::from1970(1'772'355'600)));
    ASSERT_TRUE(volumes_.mount(uuid_, snapshot, "snapshot", mntReadOnly));
  }

  Tree scan(ScanRequest request) {
    const auto keep = [](Guarded<std::vector<std::string>>& lines) {
      return [&lines](const std::string& line) { lines.with([&](auto& all) { all.push_back(line); }); };
    };
    SnapshotScanner scanner(dispatch, reader, keep(notes_), keep(warnings_));
    Tree tree;
    scanner.scan(request).forEach(
        [&](const SnapshotIndex::EntryView& entry) { tree.emplace(std::string(entry.path), entry); });
    return tree;
  }
  // What a failed scan says: its domain, code and text.
  std::string failureOf(ScanRequest request) {
    try {
      (void)scan(std::move(request));
    } catch (const Error& error) {
      return error.domain() + " " + std::to_string(error.code()) + " " + error.description();
    }
    return "none";
  }
  std::vector<std::string> notes() {
    return notes_.with([](auto& lines) { return std::exchange(lines, {}); });
  }
  std::vector<std::string> warnings() {
    return warnings_.with([](auto& lines) { return std::exchange(lines, {}); });
  }
  void expectNothingLeftBehind() {
    EXPECT_EQ(reader.openNow(), 0);
    EXPECT_EQ(reader.loweredNow(), 0);
  }

 private:
  const Uuid uuid_ = *Uuid::parse("0f0e0d0c-0b0a-4908-8706-050403020100");
  os::LinuxClock clock_;

 public:
  os::LinuxDispatch dispatch{clock_};

 private:
  Guarded<std::vector<std::string>> notes_{dispatch};
  Guarded<std::vector<std::string>> warnings_{dispatch};
  sim::SimVolumes volumes_;

 public:
  sim::SimDirectoryReader reader{volumes_};
};

inline constexpr int manyNames = 20'000;

// A directory under a path that takes 1,000 bytes for each entry in it.
inline std::string deepWay() {
  std::string way;
  for (int i = 0; i < 4; ++i) way += "/" + std::string(249, 'd');
  return way;
}

}  // namespace quillmark
