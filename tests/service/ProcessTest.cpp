#include "ServiceMachine.h"
#include "platform/Files.h"
#include "platform/sim/SimTransport.h"
#include "service/DescriptorLimit.h"
#include "service/HealthMonitor.h"
#include "service/StateDirectory.h"

namespace quillmark {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

TEST(HelperProcess, saysHowItStarted) {
  ServiceMachine machine;
  machine.run([] {});
  const auto logged = machine.logged();
  EXPECT_THAT(
      logged,
      ElementsAre("descriptor limit raised 1024 -> 10240", "QuillmarkHelper starting", "uid=0 euid=0 gid=0",
                  "Mach service: com.harrowfern.quillmark.helper", "Bundle: <none>  exe=quillmark-helper",
                  "scheduler started", "Scheduler started", "Listening on Mach service com.harrowfern.quillmark.helper",
                  "Designated requirement (peer must satisfy this):", StartsWith("  anchor apple generic and ("),
                  "Entering RunLoop, ready to accept XPC connections",
                  "re-index: registered 0 snapshot(s) on Data for rebuild",
                  "history bootstrap completed for 1 volume(s)"));
}

TEST(HelperProcess, sweepsTheMountsOfAnEarlierLifeBeforeItServes) {
  ServiceMachine first;
  const std::string path = first.paths.privateMountRoot + "/.index-x-1";
  ASSERT_TRUE(first.volumes.addSnapshot(first.uuid, "x", Date()));
  ASSERT_TRUE(first.simulation.run(first.life, [&] {
    createDirectories(first.posix, path, 0700);
    ASSERT_TRUE(first.volumes.mount(first.uuid, path, "x", mntReadOnly));
    HelperProcess second(first.platform, {.exitProcess = [] {}});
    second.start();
    EXPECT_THAT(first.volumes.mounts(), IsEmpty());
    EXPECT_FALSE(first.posix.lstat(path));
  }));
  const auto logged = first.logged();
  const auto swept = std::find(logged.begin(), logged.end(), "Removed stale indexing mount at " + path);
  EXPECT_LT(std::find(logged.begin(), logged.end(), "QuillmarkHelper starting"), swept);
  EXPECT_LT(swept, std::find(logged.begin(), logged.end(), "Scheduler started"));
}

TEST(HelperProcess, sweepsWhatRestoresLeftAtTheTopOfVolumesAndNothingElse) {
  ServiceMachine machine;
  Uuid other = machine.uuid;
  other.bytes[0] = 2;
  const std::string disk = machine.posix.root() + "/disk", left = disk + "/.quillmark-tmp/job";
  machine.volumes.add(sim::makeSimVolume(other, "Disk", disk, "disk3s1"));
  for (const std::string& directory : {left, disk + "/home/.quillmark-tmp"}) {
    createDirectories(machine.posix, directory, 0755);
    writeAtomically(machine.posix, machine.life.random(), directory + "/file", "x", 0600);
  }
  machine.run([] {});
  machine.simulation.runUntilIdle();
  EXPECT_FALSE(machine.posix.lstat(disk + "/.quillmark-tmp"));
  EXPECT_TRUE(machine.posix.lstat(disk + "/home/.quillmark-tmp/file")) << "only at the top";
}

TEST(DescriptorLimit, isRaisedToTenThousandOrTheHardLimit) {
  struct Case {
    DescriptorLimit before;
    std::uint64_t after;
  };
  for (const auto& [before, after] : std::initializer_list<Case>{
           {{256, UINT64_MAX}, 10240}, {{256, 4096}, 4096}, {{20000, 30000}, 20000}, {{10240, 30000}, 10240}}) {
    ServiceMachine machine;
    sim::SimThisProcess process(1);
    ASSERT_TRUE(process.setDescriptorLimit(before));
    raiseDescriptorLimit(process, machine.helper.log());
    EXPECT_EQ(process.descriptorLimit()->soft, after);
    EXPECT_EQ(process.descriptorLimit()->hard, before.hard);
  }
}

TEST(StateDirectory, isMadePrivateAgainAtEachStart) {
  ServiceMachine machine;
  const std::string cache = machine.paths.state("snapshot-xids");
  machine.run([&] {
    createDirectories(machine.posix, cache, 0755);
    for (const std::string& file :
         {machine.paths.state("settings.json"), cache + "/x.json", machine.paths.state("other")}) {
      writeAtomically(machine.posix, machine.life.random(), file, "", 0644);
    }
    secureStateDirectory(machine.posix, machine.paths);
    const auto mode = [&](const std::string& path) { return machine.posix.lstat(path)->mode; };
    EXPECT_EQ(mode(machine.paths.stateDirectory), 0700U);
    EXPECT_EQ(mode(cache), 0700U);
    EXPECT_EQ(mode(cache + "/x.json"), 0600U);
    EXPECT_EQ(mode(machine.paths.state("settings.json")), 0600U);
    EXPECT_EQ(mode(machine.paths.state("other")), 0644U) << "not ours";
  });
}

// Goal:   what a process left that was killed while it replaced a file goes at the next start, and nothing else does.
// Method: files that bear such names, and others that nearly do, in the directory, in those below it and in one of none.
TEST(StateDirectory, losesWhatAKilledProcessLeftHalfWritten) {
  ServiceMachine machine;
  const std::string root = machine.paths.stateDirectory, uuid = "01234567-89ab-cdef-0123-456789abcdef";
  const std::vector<std::string> left = {"settings.json.tmp." + uuid, "snapshot-xids/x.json.tmp." + uuid};
  const std::vector<std::string> kept = {".tmp." + uuid,
                                         "settings.json",
                                         "settings.json.tmp",
                                         "settings.json.tmp.0123",
                                         "settings.json.tmp." + uuid + ".bak",
                                         "settings.json.tmp.01234567-89AB-CDEF-0123-456789ABCDEF",
                                         "others/x.tmp." + uuid};
  machine.run([&] {
    for (const char* directory : {"snapshot-xids", "others"})
      createDirectories(machine.posix, root + "/" + directory, 0700);
    createDirectories(machine.posix, root + "/directory.tmp." + uuid, 0700);
    for (const auto& names : {left, kept}) {
      for (const std::string& name : names) {
        writeAtomically(machine.posix, machine.life.random(), root + "/" + name, "x", 0600);
      }
    }
    secureStateDirectory(machine.posix, machine.paths);
    for (const std::string& name : left) EXPECT_FALSE(machine.posix.lstat(root + "/" + name)) << name;
    for (const std::string& name : kept) EXPECT_TRUE(machine.posix.lstat(root + "/" + name)) << name;
    EXPECT_TRUE(machine.posix.lstat(root + "/directory.tmp." + uuid));
  });
}

TEST(HelperLog, writesALineAsAgreed) {
  ServiceMachine machine;
  machine.helper.log().warn("something", {"service/main.cpp", 118});
  EXPECT_EQ(machine.process.standardError(),
            "[2026-03-01 09:00:00.000] [WARN ] [pid=" + std::to_string(machine.life.pid()) +
                "] something  (service/main:118)\n");
  EXPECT_EQ(
      machine.platformLog.entries().back(),
      (sim::SimPlatformLog::Entry{PlatformLogType::normal, "com.harrowfern.quillmark.helper", "main", "something"}));
  machine.helper.log().error("bad \xFF byte", {"a.cpp", 1});
  EXPECT_THAT(machine.process.standardError(), EndsWith("(service/main:118)\n")) << "no UTF-8: dropped here";
  EXPECT_EQ(machine.platformLog.entries().back().message, "bad \xFF byte");
  machine.helper.log().info("two\nlines", {"a.cpp", 1});
  EXPECT_THAT(machine.process.standardError(), EndsWith("two\\x0alines  (a:1)\n"));
}

// A log over its file, as when standard error goes there.
struct LogFile {
  LogFile() { writeAtomically(machine.posix, machine.life.random(), path, content, 0640); }
  void emit(int lines) {
    for (int i = 0; i < lines; ++i) log.info("x");
  }
  [[nodiscard]] std::optional<std::string> contentOf(const std::string& file) { return readFile(machine.posix, file); }

  ServiceMachine machine;
  const std::string path = machine.paths.helperLog;
  const std::string content = std::string(8'388'608, 'l');
  HelperLogWriter log{machine.life.dispatch(),
                      machine.life.clock(),
                      machine.posix,
                      machine.platformLog,
                      machine.process,
                      path,
                      HelperLogWriter::Rotation::ofLogFile};
};

TEST(HelperLog, rotatesAtTheFiveHundredAndTwelfthLineOnceItsFileIsFull) {
  LogFile file;
  file.emit(511);
  EXPECT_EQ(file.contentOf(file.path), file.content);
  file.emit(1);
  EXPECT_EQ(file.contentOf(file.path), "");
  EXPECT_EQ(file.contentOf(file.path + ".previous"), file.content);
  const auto logged = file.machine.logged();
  EXPECT_THAT(logged, Contains("helper log rotated at 8388608 bytes"));
  EXPECT_THAT(file.machine.process.standardError(), Not(HasSubstr("rotated")));
}

TEST(HelperLog, truncatesEvenWhenTheOldGenerationCanNotBeReplaced) {
  LogFile file;
  file.machine.posix.setPlan({.fault = sim::Fault::fail, .atCall = 1, .only = sim::PosixCall::unlink, .error = EPERM});
  writeAtomically(file.machine.posix, file.machine.life.random(), file.path + ".previous", "old", 0640);
  file.emit(512);
  EXPECT_EQ(file.contentOf(file.path), "");
  EXPECT_EQ(file.contentOf(file.path + ".previous"), "old");
}

TEST(HelperLog, leavesAFileBelowTheThresholdAlone) {
  LogFile file;
  writeAtomically(file.machine.posix, file.machine.life.random(), file.path, std::string(8'388'607, 'l'), 0640);
  file.emit(1024);
  EXPECT_EQ(file.contentOf(file.path)->size(), 8'388'607U);
  ASSERT_TRUE(file.machine.posix.unlink(file.path));
  file.emit(1024);
  EXPECT_FALSE(file.contentOf(file.path));
  EXPECT_FALSE(file.contentOf(file.path + ".previous"));
  EXPECT_THAT(file.machine.logged(), Not(Contains(HasSubstr("rotated"))));
}

TEST(Health, followsTheAuditTrailAndTellsWhatAdministratorsShouldKnow) {
  ServiceMachine machine;
  machine.serve([&](TestClient& client) {
    const auto health = [&] { return payload<HelperHealthStatus>(client.call(HelperHealth{})); };
    EXPECT_EQ(health().audit, HelperSubsystemHealth());
    EXPECT_EQ(health().notes, std::nullopt);
    machine.healthNote = "Devices can't be given names: no space";
    machine.breakAuditTrail();
    for (int i = 0; i < 3; ++i) (void)client.call(DeleteSnapshot{"gone", machine.uuid.lower(), true});
    EXPECT_EQ(health().audit.state, HelperSubsystemState::degraded);
    EXPECT_THAT(health().audit.detail.value_or(""), StartsWith("3 write(s) failed: "));
    EXPECT_THAT(health().notes.value_or(std::vector<std::string>()), ElementsAre(*machine.healthNote));
    machine.mendAuditTrail();
    (void)client.call(DeleteSnapshot{"gone", machine.uuid.lower(), true});
    EXPECT_EQ(health().audit, HelperSubsystemHealth()) << "one good write clears it";
    EXPECT_EQ(payload<AuditLogHealth>(client.call(GetAuditLogHealth{})).failedWriteCount, 3);
  });
}

TEST(Health, startsANewEpisodeWithEachChangeOfTheProblem) {
  ServiceMachine machine;
  HelperSubsystemHealth history, settings;
  HealthMonitor monitor(machine.life.dispatch(), machine.life.random(), machine.helper.log(),
                        machine.helper.environment().notifications,
                        {.history = [&] { return history; }, .settings = [&] { return settings; }});
  const std::string first = monitor.evaluate().correlationID;
  EXPECT_EQ(monitor.evaluate().correlationID, first);
  settings = {HelperSubsystemState::unavailable, "cannot be read"};
  history.state = HelperSubsystemState::degraded;
  const HelperHealthStatus status = monitor.evaluate();
  EXPECT_NE(status.correlationID, first);
  EXPECT_TRUE(HealthMonitor::automaticDeletionBlocked(status));
  EXPECT_EQ(monitor.evaluate().correlationID, status.correlationID);
  EXPECT_EQ(machine.logged().back(),
            "helper-health[" + status.correlationID + "] degraded: history: degraded; settings: cannot be read");
  settings = {};
  EXPECT_FALSE(HealthMonitor::automaticDeletionBlocked(monitor.evaluate())) << "history alone blocks nothing";
  history = {};
  const std::string recovered = monitor.evaluate().correlationID;
  EXPECT_EQ(machine.logged().back(), "helper-health[" + recovered + "] recovered");
}

}  // namespace
}  // namespace quillmark
