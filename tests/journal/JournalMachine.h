// JournalMachine: one simulated machine's files and clock, with logs of JSON lines small enough to rotate often.
//
//   JournalMachine machine;
//   auto log = machine.log();              // another is the next process
//   ASSERT_EQ(log->append(machine.event("1")), std::nullopt);
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "journal/ActivityLog.h"
#include "platform/HostPaths.h"
#include "platform/linux/Dispatch.h"
#include "platform/sim/MachineClock.h"
#include "platform/sim/SimPlatformLog.h"
#include "platform/sim/SimPosix.h"

namespace quillmark {

inline HelperEvent eventWith(std::string detail) {
  HelperEvent event;
  event.id = "0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0";
  event.timestamp = Date::from1970(1'773'479'702);
  event.kind = HelperEvent::Kind::createSnapshot;
  event.client = HelperEvent::Client::cli;
  event.detail = std::move(detail);
  event.succeeded = true;
  return event;
}

inline std::vector<std::string> detailsOf(const std::vector<HelperEvent>& events) {
  std::vector<std::string> details;
  for (const HelperEvent& event : events) details.push_back(event.detail);
  return details;
}

class JournalMachine {
 public:
  explicit JournalMachine(std::unique_ptr<sim::SimPosix> files = std::make_unique<sim::SimPosix>())
      : posix(std::move(files)) {}

  [[nodiscard]] std::string directory() const { return posix->root() + "/var/lib/quillmark"; }
  // Rotates behind the line that reaches `rotationBytes`.
  [[nodiscard]] JSONLinesDescription shape(std::uint64_t rotationBytes = 1, std::int64_t retained = 8) const {
    JSONLinesDescription description = activityLogDescription({.sharedDirectory = directory()});
    description.rotationBytes = rotationBytes;
    description.retainedArchiveCount = retained;
    return description;
  }
  using Log = JSONLinesLog<HelperEvent>;
  [[nodiscard]] std::unique_ptr<Log> log(const JSONLinesDescription& description) {
    return std::make_unique<Log>(dispatch, *posix, platformLog, description);
  }
  [[nodiscard]] std::unique_ptr<Log> log(std::uint64_t rotationBytes = std::uint64_t{4} << 20) {
    return log(shape(rotationBytes));
  }
  [[nodiscard]] JSONLinesReader<HelperEvent> reader() { return {*posix, platformLog, shape()}; }
  [[nodiscard]] ReadBatch<HelperEvent> read(std::optional<JSONLinesCursor> cursor = {}) {
    return reader().readSince(cursor);
  }
  [[nodiscard]] std::vector<std::string> details() { return detailsOf(read().records); }

  [[nodiscard]] std::string path(const std::string& name = "activity.log") const { return directory() + "/" + name; }
  // Ascending, without the current file.
  [[nodiscard]] std::vector<std::string> archives() {
    std::vector<std::string> names = *posix->list(directory());
    std::erase(names, "activity.log");
    return names;
  }
  [[nodiscard]] std::string contents(const std::string& name = "activity.log") const {
    std::ostringstream text;
    text << std::ifstream(path(name), std::ios::binary).rdbuf();
    return text.str();
  }
  // What a crash, or somebody else, left there.
  void scribble(std::string_view bytes, const std::string& name = "activity.log") {
    std::ofstream(path(name), std::ios::binary | std::ios::app).write(bytes.data(), std::ssize(bytes));
    posix->syncEverything();
  }
  [[nodiscard]] std::vector<std::string> logged() const {
    std::vector<std::string> messages;
    for (const auto& entry : platformLog.entries()) messages.push_back(entry.message);
    return messages;
  }

  std::unique_ptr<sim::SimPosix> posix;
  sim::SimPlatformLog platformLog;
  sim::MachineClock clock{Date::from1970(1'773'479'702.4175), "UTC"};  // 2026-03-14 09:15:02
  os::LinuxDispatch dispatch{clock};
};

#define EXPECT_APPENDED(expression) EXPECT_EQ(quillmark::textOf(expression), "")

inline std::string textOf(const std::optional<Error>& error) { return error ? error->description() : ""; }

}  // namespace quillmark
