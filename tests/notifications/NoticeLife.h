// NoticeLife: one process's notifications over a machine's files, with all that they told to whom.
//
//   sim::SimPosix files;
//   prepareMachine(files);
//   NoticeLife life(files);
//   life.run([&] { life.notices.post(notice("low")); });
//   EXPECT_THAT(life.told, ElementsAre("push low", "mail low"));
#pragma once

#include <gmock/gmock.h>

#include "base/HelperLog.h"
#include "journal/JSONLinesReader.h"
#include "notifications/EmailOffer.h"
#include "notifications/HelperNotifications.h"
#include "platform/Files.h"
#include "platform/sim/SimPlatform.h"
#include "platform/sim/Simulation.h"
#include "wire/Json.h"

namespace quillmark {

inline void prepareMachine(sim::SimPosix& files) {
  createDirectories(files, sim::hostPathsUnder(files.root()).stateDirectory, 0700);
  createDirectories(files, sim::hostPathsUnder(files.root()).sharedDirectory, 0755);
}

class NoticeLife final : public HelperLog, public EmailOffer {
 public:
  // Its clock stands at the start date.
  explicit NoticeLife(sim::SimPosix& machine, Date start = sim::SimulationOptions().start)
      : files(machine), simulation({.start = start}) {
    notices.setEmail(this);
  }

  void run(FunctionRef<void()> body) { ASSERT_TRUE(simulation.run(life, body)); }
  [[nodiscard]] HelperNotification notice(const std::string& title, const std::optional<std::string>& key = {},
                                          std::optional<double> cooldown = {}) {
    HelperNotification notification;
    notification.id = life.random().uuid().upper();
    notification.timestamp = life.clock().now();
    notification.title = title;
    notification.dedupeKey = key;
    notification.cooldown = cooldown;
    return notification;
  }
  // What a post of the key brings out, right now.
  [[nodiscard]] std::vector<std::string> toldByPosting(const std::string& title, const std::optional<std::string>& key,
                                                       std::optional<double> cooldown = {}) {
    told.clear();
    run([&] { notices.post(notice(title, key, cooldown)); });
    return told;
  }
  [[nodiscard]] bool isActive(const std::string& key) {
    bool active = false;
    run([&] { active = notices.isActive(key); });
    return active;
  }
  [[nodiscard]] std::vector<HelperNotification> logged() {
    return JSONLinesReader<HelperNotification>(files, platformLog, notificationLogDescription(paths))
        .readSince({})
        .records;
  }
  [[nodiscard]] std::string stateText() {
    return readFile(files, paths.state("notifications-state.json")).value_or("[none]");
  }

  sim::SimPosix& files;
  sim::Simulation simulation;
  sim::Life& life = simulation.startLife("helper");
  const HostPaths paths = sim::hostPathsUnder(files.root());
  sim::SimPlatformLog platformLog;
  std::vector<std::string> told;
  std::vector<std::string> errors;
  HelperNotifications notices{
      life.dispatch(), life.random(), files, platformLog, *this, paths, [this](const std::string& json) {
        told.push_back("push " + decodeJson<HelperNotification>(json).title);
      }};

 private:
  void emit(LogLevel level, std::string_view message, CodeLocation) override {
    if (level == LogLevel::error) errors.emplace_back(message);
  }
  void offer(const HelperNotification& notification) override { told.push_back("mail " + notification.title); }
};

}  // namespace quillmark
