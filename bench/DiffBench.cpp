// How a snapshot gets into the history, against its bare scan and commit. What changed between two, asked of the history
// and by full scans, against snapper and rsync on the same two; how its file and its JSON are encoded; and the question
// whether a user may read what he compares. All in turns in one run; medians.
//
//   quillmark_diff_bench [ENTRIES [IMAGE [ROUNDS]]]     20,000 and 5 unless told; the image is made there, or used again
//
// A thousandth of the entries changes. Goals: a first snapshot is in the history within 1.2 times its scan and commit (2
// times where there are so few entries that listing and mounting weigh as much); from the request to the written file,
// without the audit's line, at least 20 times faster than snapper by the history (10 times where snapper's start takes half
// of its time), and at least 10 times faster than rsync by full scans; the history's read within 3 times a bare statement
// over the same rows; 250,000 rows take no longer to a cache file than to JSON; a question of rights is answered within 2
// times a bare thread that makes the same system calls, and eight clients that ask without a pause are never refused. Ends
// with 1 when not even half of that is reached. Needs root, loop devices and btrfs; peers that aren't installed are left out.
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <linux/openat2.h>
#include <plist/plist.h>
#include <poll.h>
#include <pthread.h>
#include <pwd.h>
#include <semaphore.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "base/HelperLog.h"
#include "base/UniqueFd.h"
#include "bench/BtrfsImage.h"
#include "bench/TreeMaker.h"
#include "history/DiffCache.h"
#include "history/HistoryConnection.h"
#include "history/NetChange.h"
#include "history/SnapshotHistoryManager.h"
#include "history/SnapshotScanner.h"
#include "journal/AuditTrail.h"
#include "platform/linux/Clock.h"
#include "platform/linux/DeviceNames.h"
#include "platform/linux/DirectoryReader.h"
#include "platform/linux/Disks.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/FileWork.h"
#include "platform/linux/PlatformLog.h"
#include "platform/linux/Posix.h"
#include "platform/linux/PowerSources.h"
#include "platform/linux/Processes.h"
#include "platform/linux/PropertyList.h"
#include "platform/linux/Random.h"
#include "platform/linux/SnapshotCalls.h"
#include "platform/linux/ThisProcess.h"
#include "platform/linux/ThreadIdentity.h"
#include "snapshots/APFSManager.h"
#include "snapshots/MountPinRegistry.h"
#include "snapshots/PeerAuthorization.h"
#include "snapshots/VolumeService.h"

namespace quillmark::bench {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t manyEntries = 200'000, manyRows = 250'000;
constexpr int questions = 200, clients = 8, questionsOfEach = 1000;
constexpr std::uint32_t somebody = 1;  // whom every system knows

void require(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(what);
}

// ---- what is measured

struct Troubles final : HelperLog {
  void emit(LogLevel level, std::string_view message, CodeLocation) override {
    if (level != LogLevel::info) std::printf("%.*s\n", static_cast<int>(message.size()), message.data());
  }
};

struct NoTrail final : AuditTrail {
  std::optional<Error> append(const HelperEvent&) override { return std::nullopt; }
};

bool hasProgram(const std::string& name) { return std::system(("command -v " + name + " >/dev/null").c_str()) == 0; }

std::string freshDirectory() {
  std::string directory = "/var/tmp/quillmark-diff-XXXXXX";
  require(::mkdtemp(directory.data()) && ::chmod(directory.c_str(), 0755) == 0, "no directory to work in");
  return directory;
}

// A directory on disk with the image's volume mounted in it, and a state of the volume before and after the changes.
class Place final {
 public:
  explicit Place(const BtrfsImage& image) : image_(image) {
    const std::string top = image.volume().substr(0, image.volume().rfind('/'));
    image.shell("mkdir " + volume + " && mount -o noatime,subvol=data $(findmnt -no SOURCE " + top + ") " + volume);
    // The names of devices have one place for all programs: it is covered for this process and its children.
    image.shell(fmt::format("mkdir -p {0}/lib/quillmark && mount --bind {0}/lib /var/lib", root));
  }
  ~Place() { image_.shell("umount " + volume + " && rm -rf --one-file-system " + root); }
  Place(const Place&) = delete;
  Place& operator=(const Place&) = delete;

  void makeSnapshots(std::size_t entries) {
    if (hasSnapper) configureSnapper();
    if (image_.wasThere()) return;
    TreeMaker maker(entries);
    maker.make(volume);
    take(1);
    maker.change(volume, std::max<std::size_t>(entries / 1000, 10));
    take(2);
  }
  [[nodiscard]] std::string snapshot(int number) const {
    return fmt::format("{}/.snapshots/{}/snapshot", volume, number);
  }
  [[nodiscard]] HostPaths paths() const {
    HostPaths paths;
    paths.stateDirectory = root + "/state";
    paths.privateMountRoot = root + "/mounts";
    paths.userMountRoot = root + "/Volumes";
    paths.diskutil = DISKUTIL_PROGRAM;
    return paths;
  }

  const bool hasSnapper = hasProgram("snapper");
  const bool hasRsync = hasProgram("rsync");
  const std::string root = freshDirectory();
  const std::string volume = root + "/volume";

 private:
  // Its files cover the host's, for this process and its children. Snapshots of an image that was there stay.
  void configureSnapper() {
    for (const char* directory : {"/etc/snapper", "/etc/default", "/var/log"}) {
      const std::string own = root + directory;
      image_.shell(fmt::format("mkdir -p {0} && cp -a {1}/. {0} && mount --bind {0} {1}", own, directory));
    }
    const std::string snapshots = volume + "/.snapshots", kept = volume + "/.kept";
    if (image_.wasThere()) image_.shell("mv " + snapshots + " " + kept);
    image_.shell("snapper --no-dbus -c bench create-config " + volume);
    if (image_.wasThere()) image_.shell(fmt::format("btrfs -q subvolume delete {0} && mv {1} {0}", snapshots, kept));
  }
  void take(int number) {
    if (hasSnapper) return image_.shell("snapper --no-dbus -c bench create");
    image_.shell(fmt::format("mkdir -p {0}/.snapshots/{1} && btrfs -q subvolume snapshot -r {0} {2}", volume, number,
                             snapshot(number)));
  }

  const BtrfsImage& image_;
};

class Machine final {
 public:
  explicit Machine(const Place& given) : place(given) {
    require(snapshots.size() == 2, "the image doesn't hold the two snapshots");
  }
  ~Machine() {
    history->stopBackgroundWork();
    history->waitForWork();
    history.reset();
    dispatch.shutdown();
  }

  // From the notice of the first snapshot until it can be asked about.
  void indexFirst() {
    history->snapshotCreated(volume, snapshots[0], Forced::no);
    while (!history->store().isReady(volume.key(), snapshots[0].xid)) sleepFor(dispatch, 1ms);
  }
  void forget() {
    history->waitForWork();
    history->store().dropVolume(volume.key());
  }
  void index() {
    for (const SnapshotRecord& snapshot : snapshots) history->snapshotCreated(volume, snapshot, Forced::yes);
    history->waitForWork();
    for (const SnapshotRecord& snapshot : snapshots) {
      require(history->store().isReady(volume.key(), snapshot.xid), "a snapshot wasn't indexed");
    }
  }

  enum class Road { history, fullScan };
  // As the command is answered, from the names to the path of the file.
  DiffResult answer(Road road, const SnapshotRecord& a, const SnapshotRecord& b) {
    const bool isFull = road == Road::fullScan;
    const auto found = apfs.verifySnapshots(volume, {{a.name, a.xid}, {b.name, b.xid}});
    const DiffCache::Request request{somebody, volume.key(), a.xid, b.xid, false, isFull};
    require(!diffCache.find(request), "the answer was there already");
    const auto comparison = history->compare(volume, found[0], found[1], false, isFull);
    require(std::find(given_.begin(), given_.end(), comparison) == given_.end(), "the comparison was kept in memory");
    given_.push_back(comparison);
    DiffResult result = makeDiffResult(*comparison, uuid, a.xid, b.xid);
    require(std::filesystem::file_size(diffCache.write(request, result)) > 0, "there is no file");
    return result;
  }

  const Place& place;
  os::LinuxClock clock;
  os::LinuxDispatch dispatch{clock};
  os::LinuxPosix posix;
  os::LinuxRandom random;
  os::LinuxFileWork fileWork;
  os::LinuxThisProcess process;
  os::LinuxProcesses processes{dispatch};
  os::LinuxPropertyLists propertyLists;
  os::LinuxPlatformLog platformLog{{.journal = "/nowhere", .syslog = "/nowhere"}};
  os::LinuxPowerSources power;
  os::LinuxDirectoryReader directories;
  Troubles log;
  NoTrail trail;
  const HostPaths paths = place.paths();
  os::DeviceNames deviceNames{posix, paths.deviceNames, os::DeviceNames::Mode::writer};
  os::LinuxDisks disks{deviceNames};
  os::LinuxSnapshotCalls calls{dispatch, deviceNames};
  const std::string uuid = disks.describe(place.volume)->volumeUuid->lower();
  SafeFS files{fileWork, random, process};
  DiffCache diffCache{fileWork, files, clock, paths};
  MountPinRegistry pins{dispatch, random};
  SnapshotIdentity identity{dispatch, processes,   propertyLists, posix,
                            random,   platformLog, paths,         SnapshotIdentity::FileIds::areXids};
  SnapshotServices services{calls, disks, posix, platformLog, paths, identity, {}};
  APFSManager apfs{services, "bench"};
  VolumeService volumes{dispatch, disks, calls, processes, propertyLists, paths};
  std::shared_ptr<SnapshotHistoryManager> history =
      SnapshotHistoryManager::make({dispatch, random, posix, calls, disks, directories, power, platformLog, log, paths,
                                    apfs, volumes, pins, trail, &diffCache});
  const VolumeInfo volume = apfs.resolveVolume(uuid);
  const std::vector<SnapshotRecord> snapshots = apfs.listSnapshots(volume);

 private:
  std::vector<std::shared_ptr<const Comparison>> given_;
};

// ---- the plain ways

std::size_t readChanges(HistoryConnection& connection, const VolumeUuid& volume, Xid above, Xid upTo) {
  HistoryStatement row = connection.prepare(
      "SELECT xid,path,before_type,before_inode,before_parent_inode,before_size,before_mtime_ns,before_meta_bits,"
      "before_generation,after_type,after_inode,after_parent_inode,after_size,after_mtime_ns,after_meta_bits,"
      "after_generation FROM changes WHERE volume_uuid=? AND xid>? AND xid<=? ORDER BY xid,path");
  row.bindAll(volume, above, upTo);
  std::size_t rows = 0;
  std::int64_t sum = 0;
  for (; row.next(); ++rows) {
    sum += static_cast<std::int64_t>(row.text(1).size()) + row.integer(0);
    for (int column = 2; column < 16; ++column) sum += row.integer(column);
  }
  require(sum != 0, "no change was read");
  return rows;
}

DiffResult manyChanges(std::size_t count) {
  using Row = DiffResult::Row;
  using enum DiffResult::ChangeKind;
  DiffResult result{.volumeUUID = "6f9619ff-8b86-4d01-b42d-00cf4fc964ff", .xidA = Xid{1}, .xidB = Xid{2}};
  for (std::size_t i = 0; i < count; ++i) {
    const std::int64_t size = static_cast<std::int64_t>(i * 7919 % 100'000);
    const std::int64_t mtime = 1'700'000'000'000'000'000 + static_cast<std::int64_t>(i) * 1'000'003;
    Row row{fmt::format("/home/ada/projects/notes{:03}/archive_{:05}/chapter {:07} of {}.txt", i / 1000, i / 50, i,
                        i % 20 == 0 ? "Bücher" : "letters"),
            std::array{added, deleted, modified, modified, moved}[i % 5], DiffResult::EntryType::file};
    if (row.kind != added) row.oldSize = size, row.oldMTimeNS = mtime;
    if (row.kind != deleted) row.newSize = size + 1, row.newMTimeNS = mtime + 1'000'000'000;
    if (row.kind == moved) row.oldPath = row.path + ".old";
    result.rows.push_back(std::move(row));
  }
  result.totalRowCount = static_cast<std::int64_t>(count);
  return result;
}

std::size_t libplist(const DiffResult& result) {
  plist_t rows = plist_new_array();
  for (const DiffResult::Row& row : result.rows) {
    plist_t item = plist_new_dict();
    plist_dict_set_item(item, "path", plist_new_string(row.path.c_str()));
    plist_dict_set_item(item, "kind", plist_new_string(name(row.kind).data()));
    plist_dict_set_item(item, "type", plist_new_string(name(row.type).data()));
    const auto number = [&](const char* key, const std::optional<std::int64_t>& value) {
      if (value) plist_dict_set_item(item, key, plist_new_uint(static_cast<std::uint64_t>(*value)));
    };
    number("oldSize", row.oldSize);
    number("newSize", row.newSize);
    number("oldMTimeNS", row.oldMTimeNS);
    number("newMTimeNS", row.newMTimeNS);
    if (row.oldPath) plist_dict_set_item(item, "oldPath", plist_new_string(row.oldPath->c_str()));
    plist_array_append_item(rows, item);
  }
  plist_t all = plist_new_dict();
  plist_dict_set_item(all, "rows", rows);
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(all, &bytes, &length);
  plist_free(all);
  std::free(bytes);
  return length;
}

// One question of rights by the system calls that it takes, on a thread as large.
class BareQuestion final {
 public:
  BareQuestion(std::string volume, const std::filesystem::path& below) : volume_(std::move(volume)) {
    for (const auto& name : below) names_.push_back(name.string());
    ::pthread_attr_init(&thread_);
    ::pthread_attr_setstacksize(&thread_, std::size_t{512} * 1024);
    ::pthread_attr_setdetachstate(&thread_, PTHREAD_CREATE_DETACHED);
    ::sem_init(&answered_, 0, 0);
  }
  ~BareQuestion() {
    ::sem_destroy(&answered_);
    ::pthread_attr_destroy(&thread_);
  }
  BareQuestion(const BareQuestion&) = delete;
  BareQuestion& operator=(const BareQuestion&) = delete;

  bool ask() {
    pollfd mounts{mounts_.get(), POLLPRI, 0};
    ::poll(&mounts, 1, 0);
    pthread_t thread;
    const auto answer = [](void* self) -> void* {
      static_cast<BareQuestion*>(self)->answer();
      return nullptr;
    };
    require(::pthread_create(&thread, &thread_, answer, this) == 0, "there is no thread");
    while (::sem_wait(&answered_) != 0) {
    }
    return isAllowed_;
  }

 private:
  static UniqueFd open(int directory, const char* name, std::uint64_t flags, std::uint64_t resolve) {
    const open_how how{.flags = O_PATH | O_CLOEXEC | flags, .mode = 0, .resolve = resolve};
    return UniqueFd(static_cast<int>(::syscall(SYS_openat2, directory, name, &how, sizeof how)));
  }
  void answer() {
    char text[16'384], target[4096];
    passwd entry{};
    passwd* found = nullptr;
    ::getpwuid_r(somebody, &entry, text, sizeof text, &found);
    gid_t groups[64];
    int count = 64;
    ::getgrouplist(entry.pw_name, entry.pw_gid, groups, &count);
    ::syscall(SYS_setgroups, 1, &somebody);
    ::syscall(SYS_setresgid, -1, entry.pw_gid, -1);
    ::syscall(SYS_setresuid, -1, somebody, -1);
    UniqueFd at = open(AT_FDCWD, volume_.c_str(), O_DIRECTORY, RESOLVE_NO_SYMLINKS);
    for (const std::string& name : names_) {
      at = open(at.get(), name.c_str(), O_NOFOLLOW, RESOLVE_BENEATH | RESOLVE_NO_XDEV);
      isLink_ = ::readlinkat(at.get(), "", target, sizeof target) >= 0;
    }
    isAllowed_ = ::syscall(SYS_faccessat2, at.get(), "", R_OK, AT_EACCESS | AT_EMPTY_PATH) == 0 && !isLink_;
    at.reset();
    ::sem_post(&answered_);
  }

  const std::string volume_;
  std::vector<std::string> names_;
  const UniqueFd mounts_{::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC)};
  pthread_attr_t thread_;
  sem_t answered_;
  bool isLink_ = false, isAllowed_ = false;
};

// ---- the measurement

class Report final {
 public:
  Report(os::LinuxClock& clock, int roundsToGo) : rounds(roundsToGo), clock_(clock) {}

  void time(const std::string& name, const std::function<void()>& work) {
    const MonotonicTime from = clock_.monotonic();
    work();
    values_[name].push_back(std::chrono::duration<double>(clock_.monotonic() - from).count());
  }
  void tellTimes() const {
    for (const auto& [name, values] : values_) {
      const auto [least, most] = std::minmax_element(values.begin(), values.end());
      std::printf("%-28s %11.3f ms  (%.3f to %.3f)\n", name.c_str(), median(name) * 1e3, *least * 1e3, *most * 1e3);
    }
  }
  // The goals: so many times faster, or slower by no more.
  void faster(const char* name, const std::string& peer, const std::string& ours, double goal) {
    tell(name, median(peer) / median(ours), goal, true);
  }
  void within(const char* name, const std::string& ours, const std::string& bare, double goal) {
    tell(name, median(ours) / median(bare), goal, false);
  }

  const int rounds;
  bool isWell = true;

 private:
  [[nodiscard]] double median(const std::string& name) const {
    std::vector<double> values = values_.at(name);
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
  }
  void tell(const char* name, double ratio, double goal, bool isLeast) {
    std::printf("%-22s %8.2f (goal at %s %.1f)\n", name, ratio, isLeast ? "least" : "most", goal);
    isWell = isWell && (isLeast ? ratio >= goal / 2 : ratio <= goal * 2);
  }

  os::LinuxClock& clock_;
  std::map<std::string, std::vector<double>> values_;
};

void measureIndexing(Report& report, Machine& machine) {
  const auto print = [](const std::string& line) { std::printf("%s\n", line.c_str()); };
  SnapshotScanner scanner(machine.dispatch, machine.directories, print, print);
  const HostPaths beside{.stateDirectory = machine.place.root + "/beside"};
  SnapshotHistoryStore store(machine.dispatch, machine.posix, machine.log, beside);
  const VolumeUuid volume(machine.uuid);
  const SnapshotRecord& first = machine.snapshots[0];
  (void)scanner.scan({.root = machine.place.snapshot(1)});  // its blocks into memory
  for (int round = 0; round < report.rounds; ++round) {
    dropInodes();
    report.time("indexing", [&] { machine.indexFirst(); });
    machine.forget();
    store.recordPending(volume, first.xid, first.name, Date());
    dropInodes();
    report.time("scan and commit", [&] {
      store.commitBaseline(volume, {.xid = first.xid}, scanner.scan({.root = machine.place.snapshot(1)}));
    });
    store.dropVolume(volume);
  }
}

void measureComparisons(Report& report, const BtrfsImage& image, Machine& machine) {
  const SnapshotRecord &a = machine.snapshots[0], &b = machine.snapshots[1];
  const VolumeUuid volume(machine.uuid);
  const std::string output = machine.place.root + "/output";
  const std::string rsync = fmt::format("exec rsync -anic --delete {}/ {}/ >{}", machine.place.snapshot(2),
                                        machine.place.snapshot(1), output);
  HistoryConnection connection(machine.paths.state("history.sqlite3"), HistoryConnection::Access::readOnly);
  const std::size_t changes = readChanges(connection, volume, a.xid, b.xid);
  const std::size_t reads = 1 + 20'000 / changes;
  DiffResult byHistory, byScans;
  for (int round = 0; round < report.rounds; ++round) {
    machine.diffCache.purge(volume);
    report.time("history", [&] { byHistory = machine.answer(Machine::Road::history, a, b); });
    if (machine.place.hasSnapper) {
      image.shell("rm -f " + machine.place.volume + "/.snapshots/2/filelist*");
      report.time("snapper", [&] { image.shell("exec snapper --no-dbus -c bench status -o " + output + " 1..2"); });
      report.time("snapper, no work", [&] { image.shell("exec snapper --version >" + output); });
    }
    for (std::size_t i = 0; i < reads; ++i) {
      report.time("read", [&] {
        const NetChange change = readNetChange(machine.dispatch, machine.history->store(), volume, a.xid, b.xid);
        require(!change.after.isEmpty(), "nothing was read");
      });
      report.time("read, bare statement", [&] { readChanges(connection, volume, a.xid, b.xid); });
    }
    // As new snapshots are found: their blocks in memory, their inodes asked for by nobody yet. Besides, two comparisons
    // stay in memory: this one and the next push the history's out.
    dropInodes();
    (void)machine.answer(Machine::Road::fullScan, b, a);
    report.time("full scans", [&] { byScans = machine.answer(Machine::Road::fullScan, a, b); });
    if (!machine.place.hasRsync) continue;
    dropInodes();
    report.time("rsync", [&] { image.shell(rsync); });
    report.time("rsync, all in memory", [&] { image.shell(rsync); });
  }
  std::printf("%zu rows of the history, %zu in the answer\n", changes, byHistory.rows.size());
  require(!byHistory.rows.empty() && byHistory == byScans, "the two roads don't find the same");
}

void measureEncoding(Report& report, Machine& machine) {
  const DiffResult result = manyChanges(manyRows), fewer = manyChanges(manyRows / 10);
  const DiffCache::Request request{somebody, VolumeUuid(machine.uuid), result.xidA, result.xidB, false, false};
  for (int round = 0; round < report.rounds; ++round) {
    machine.diffCache.purge(request.volume);
    report.time("rows to a file", [&] { (void)machine.diffCache.write(request, result); });
    report.time("rows to JSON", [&] { require(!encodeDiffResult(result).empty(), "there is no JSON"); });
    // Its time grows with the square of the rows: of all of them nobody would wait for the end.
    report.time("a tenth by libplist", [&] { require(libplist(fewer) != 0, "there is no property list"); });
  }
}

std::filesystem::path someFile(const std::string& directory) {
  for (std::filesystem::recursive_directory_iterator at(directory), end; at != end; ++at) {
    if (at.depth() > 0 && at->symlink_status().type() == std::filesystem::file_type::regular) return at->path();
  }
  throw std::runtime_error("there is no file to ask about");
}

void measureRights(Report& report, Machine& machine) {
  os::LinuxThreadIdentity identities;
  PeerAuthorization authorization(machine.dispatch, identities, machine.log);
  const std::filesystem::path file = someFile(machine.place.volume + "/usr");
  BareQuestion bare(machine.place.volume, file.lexically_relative(machine.place.volume));
  const auto isAllowed = [&] {
    return authorization.check(Asked::mayRead, file, {somebody, {{somebody}}}, 10s) == Verdict::allowed;
  };
  std::atomic<int> refused = 0;
  for (int round = 0; round < report.rounds; ++round) {
    for (int i = 0; i < questions; ++i) {
      report.time("rights", [&] { refused += !isAllowed(); });
      report.time("rights, bare thread", [&] { require(bare.ask(), "the bare thread is refused"); });
    }
    report.time("rights, eight at once", [&] {
      Group group(machine.dispatch);
      for (int client = 0; client < clients; ++client) {
        group.enter();
        machine.dispatch.throwAwayThread("client", [&] {
          for (int i = 0; i < questionsOfEach; ++i) refused += !isAllowed();
          group.leave();
        });
      }
      group.wait();
    });
  }
  std::printf("%d of %d questions of eight clients refused\n", refused.load(),
              report.rounds * clients * questionsOfEach);
  report.isWell = report.isWell && refused == 0;
}

int run(std::size_t entries, const std::string& file, int rounds) {
  if (const std::string missing = whatImagesLack(); !missing.empty()) {
    std::printf("skipped: %s\n", missing.c_str());
    const char* ci = std::getenv("CI");
    return ci && std::string_view(ci) == "true" ? 1 : 0;
  }
  const BtrfsImage image(file);
  Place place(image);
  place.makeSnapshots(entries);
  Machine machine(place);
  std::printf("%s\n%zu entries, medians of %d\n", machineFacts().c_str(), entries, rounds);
  Report report(machine.clock, rounds);
  measureIndexing(report, machine);
  machine.index();
  measureComparisons(report, image, machine);
  measureEncoding(report, machine);
  measureRights(report, machine);
  report.tellTimes();
  report.within("indexing_ratio", "indexing", "scan and commit", entries < manyEntries ? 2 : 1.2);
  if (place.hasSnapper) report.faster("snapper_ratio", "snapper", "history", entries < manyEntries ? 10 : 20);
  if (place.hasRsync) report.faster("rsync_ratio", "rsync", "full scans", 10);
  report.within("read_ratio", "read", "read, bare statement", 3);
  report.within("file_json_ratio", "rows to a file", "rows to JSON", 1);
  report.within("rights_ratio", "rights", "rights, bare thread", 2);
  for (const char* peer : {"snapper", "rsync"}) {
    if (!hasProgram(peer)) std::printf("left out: %s isn't installed\n", peer);
  }
  if (!report.isWell) std::printf("FAILED: not even half of what is asked\n");
  return report.isWell ? 0 : 1;
}

}  // namespace
}  // namespace quillmark::bench

int main(int count, char** arguments) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  try {
    return quillmark::bench::run(count > 1 ? std::strtoull(arguments[1], nullptr, 10) : 20'000,
                                 count > 2 ? arguments[2] : "", count > 3 ? std::atoi(arguments[3]) : 5);
  } catch (const std::exception& failure) {
    std::printf("FAILED: %s\n", failure.what());
    return 1;
  }
}
