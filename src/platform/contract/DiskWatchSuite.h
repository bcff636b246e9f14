// What every Disks tells of what is mounted and unmounted. A backend gives
//   dispatch(), disks()
//   run(body)                    runs it where it may wait
//   mount(name), unmount(name)   of a second volume, at path(name)
//   remountReadOnly(name)
//   makeNoise()                  mounts that are of no disk, many of them, and takes them away
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <vector>

#include "platform/Disks.h"
#include "platform/dispatch.h"

namespace quillmark::contract {

template <class Backend>
class DiskWatchSuite : public ::testing::Test {
 protected:
  // The events that come, in their order.
  class Told final {
   public:
    explicit Told(Dispatch& dispatch) : mutex_(dispatch), come_(dispatch) {}
    void add(const DiskEvent& event) {
      MutexLock lock(mutex_);
      events_.push_back(event);
      come_.signal();
    }
    // The next one, absent when none comes.
    std::optional<DiskEvent> next(std::chrono::milliseconds patience = std::chrono::seconds(10)) {
      if (!come_.waitFor(patience)) return std::nullopt;
      MutexLock lock(mutex_);
      return events_.at(read_++);
    }

   private:
    Mutex mutex_;
    Semaphore come_;
    std::vector<DiskEvent> events_ GUARDED_BY(mutex_);
    std::size_t read_ GUARDED_BY(mutex_) = 0;
  };

  // Runs the body with a watch whose events it is shown.
  template <class Body>
  void watching(Body body) {
    backend_.run([&] {
      Dispatch& dispatch = backend_.dispatch();
      Told told(dispatch);
      auto queue = dispatch.makeQueue({.label = "disks"});
      auto watch = backend_.disks().watch(dispatch, queue, [&](const DiskEvent& event) {
        queue->assertOn();
        told.add(event);
      });
      ASSERT_TRUE(watch);
      body(told, watch);
      watch.reset();
      queue->sync([] {});
    });
  }
  [[nodiscard]] DiskEvent event(DiskEvent::Kind kind, const std::string& name) {
    return {kind, backend_.path(name), "apfs", bsdName_};
  }
  void learnName(const std::string& name) {
    const auto description = backend_.disks().describe(backend_.path(name));
    ASSERT_TRUE(description && description->mediaBsdName);
    bsdName_ = description->mediaBsdName;
  }

  Backend backend_;
  std::optional<std::string> bsdName_;
};

TYPED_TEST_SUITE_P(DiskWatchSuite);

TYPED_TEST_P(DiskWatchSuite, AVolumeThatComesChangesAndGoesMakesOneEventEachTime) {
  using enum DiskEvent::Kind;
  this->watching([&](auto& told, auto&) {
    this->backend_.mount("second");
    const auto came = told.next();
    this->learnName("second");
    EXPECT_EQ(came, this->event(appeared, "second"));
    this->backend_.remountReadOnly("second");
    const auto changed = told.next();
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->kind, descriptionChanged);
    EXPECT_EQ(changed->volumePath, this->backend_.path("second"));
    this->backend_.unmount("second");
    const auto went = told.next();
    ASSERT_TRUE(went);
    EXPECT_EQ(went->kind, disappeared);
    EXPECT_EQ(went->volumePath, this->backend_.path("second"));
    EXPECT_EQ(went->volumeKind, "apfs");
    EXPECT_EQ(told.next(std::chrono::milliseconds(300)), std::nullopt);
  });
}

TYPED_TEST_P(DiskWatchSuite, WhatIsNoDiskMakesNone) {
  this->watching([&](auto& told, auto&) {
    this->backend_.makeNoise();
    EXPECT_EQ(told.next(std::chrono::milliseconds(400)), std::nullopt);
    this->backend_.mount("second");
    EXPECT_TRUE(told.next()) << "the watch still listens";
  });
}

TYPED_TEST_P(DiskWatchSuite, NothingIsToldOnceTheWatchIsDropped) {
  this->watching([&](auto& told, auto& watch) {
    watch.reset();
    this->backend_.mount("second");
    EXPECT_EQ(told.next(std::chrono::milliseconds(300)), std::nullopt);
  });
}

REGISTER_TYPED_TEST_SUITE_P(DiskWatchSuite, AVolumeThatComesChangesAndGoesMakesOneEventEachTime, WhatIsNoDiskMakesNone,
                            NothingIsToldOnceTheWatchIsDropped);

}  // namespace quillmark::contract
