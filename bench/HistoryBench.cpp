// The history store's writes and its comparison with the head, against the plain ways over the same tables, in turns in
// one run; medians.
//
//   quillmark_history_bench [ENTRIES [ROUNDS]]     100,000 and 3 unless told
//
// Goals: a baseline commits at least 2 times faster than its rows in the order of a scan, with the indexes present, and
// within 1.3 times of the same commit without a journal; a delta is computed within 1.5 times of reading the head's rows
// in order of paths; a delta of a thousandth of the entries commits in at most 1/80 of the baseline; at most 600 bytes
// are taken for each entry of a delta. Ends with 1 when not even half of that is reached: a loaded machine is no reason.

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>

#include "base/HelperLog.h"
#include "bench/CountedMemory.h"
#include "history/HistoryCommits.h"
#include "history/HistoryRows.h"
#include "history/HistorySchema.h"
#include "history/SnapshotHistoryStore.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"
#include "platform/linux/Posix.h"

namespace quillmark {
namespace {

using SnapshotIndex::EntryView;
using SnapshotIndex::Facts;
using SnapshotIndex::ShardedEntries;

const VolumeUuid volume("6f9619ff-8b86-4d01-b42d-00cf4fc964ff");
constexpr std::int64_t newGeneration = 1'000'000;
constexpr std::uint64_t deltasEach = 3;

class NoLog final : public HelperLog {
  void emit(LogLevel, std::string_view, CodeLocation) override {}
};

struct Machine {
  Machine() {
    std::string pattern = std::filesystem::temp_directory_path() / "quillmark-bench-XXXXXX";
    root = ::mkdtemp(pattern.data());
  }
  ~Machine() { std::filesystem::remove_all(root); }
  // An empty place for a database.
  [[nodiscard]] HostPaths place() {
    std::filesystem::remove_all(root + "/state");
    return {.stateDirectory = root + "/state"};
  }
  template <class Work>
  double seconds(const Work& work) {
    const MonotonicTime from = clock.monotonic();
    work();
    return std::chrono::duration<double>(clock.monotonic() - from).count();
  }

  std::string root;
  os::LinuxClock clock;
  os::LinuxDispatch dispatch{clock};
  os::LinuxPosix posix;
  NoLog log;
};

std::string word(std::mt19937_64& random, std::size_t least, std::size_t most) {
  std::string text(least + random() % (most - least + 1), 'a');
  for (char& c : text) c = static_cast<char>('a' + random() % 26);
  return text;
}

// Directories of some 20 entries each, to a depth of eight, in the order in which a walk meets them.
std::vector<SnapshotIndex::Entry> makeEntries(std::size_t count) {
  std::mt19937_64 random(20'260'301);
  std::vector<SnapshotIndex::Entry> entries;
  std::vector<std::string> directories{""};
  std::size_t open = 0;
  entries.reserve(count);
  while (entries.size() < count) {
    const std::string& parent = directories[open + random() % (directories.size() - open)];
    const bool isDirectory = random() % 20 == 0 && std::count(parent.begin(), parent.end(), '/') < 8;
    Facts facts{.type = isDirectory ? SnapshotIndex::EntryType::directory : SnapshotIndex::EntryType::file,
                .inode = 257 + entries.size(),
                .parentInode = 256,
                .size = isDirectory ? 0 : static_cast<std::int64_t>(random() % 100'000),
                .mtimeNS = static_cast<std::int64_t>(1'700'000'000'000'000'000 + random() % 1'000'000'000'000),
                .metaBits = 0x1234'5678'9ABC,
                .generation = static_cast<std::int64_t>(1 + random() % 1000)};
    entries.emplace_back(facts, parent + "/" + word(random, 6, 24));
    if (isDirectory) directories.push_back(entries.back().path);
    if (directories.size() - open > 40) open = directories.size() - 30;
  }
  return entries;
}

// Every so many-th entry is another one by now; 0: none.
ShardedEntries treeOf(Machine& machine, const std::vector<SnapshotIndex::Entry>& entries, std::size_t changedEvery,
                      std::uint64_t xid) {
  SnapshotIndex::EntryBuckets buckets;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    EntryView entry = entries[i].view();
    if (changedEvery != 0 && (i + xid * 31) % changedEvery == 0) {
      entry.generation = newGeneration + static_cast<std::int64_t>(xid);
    }
    SnapshotIndex::append(buckets, entry);
  }
  return {machine.dispatch, std::move(buckets)};
}

// ---- the plain ways

void insertUnsorted(HistoryConnection& connection, const std::vector<SnapshotIndex::Entry>& entries) {
  HistoryTransaction transaction(connection);
  for (const char* table : {"baseline_nodes", "head_nodes"}) {
    HistoryStatement row = connection.prepare("INSERT INTO " + std::string(table) + " VALUES(?,?,?,?,?,?,?,?,?,?)");
    row.bind(1, volume);
    for (const SnapshotIndex::Entry& entry : entries) {
      row.bind(2, entry.path);
      row.bind(bindFacts(row, 3, &entry), nameOfPath(entry.path));
      row.run();
    }
  }
  transaction.commit();
  connection.tryEmptyLog();
}

std::size_t readHead(HistoryConnection& connection) {
  HistoryStatement row = connection.prepare(
      "SELECT path,type,inode,parent_inode,size,mtime_ns,meta_bits,generation FROM head_nodes WHERE volume_uuid=?"
      " ORDER BY path");
  row.bindAll(volume);
  std::size_t sum = 0;
  while (row.next()) {
    sum += row.text(0).size();
    for (int column = 1; column < 8; ++column) sum += static_cast<std::size_t>(row.integer(column));
  }
  return sum;
}

// ---- the measurement

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + std::ssize(values) / 2, values.end());
  return values[values.size() / 2];
}

struct Times {
  std::vector<double> baseline, emptyLog, plain, journalOff, read, compute, commit;
};

void measurePlain(Machine& machine, const std::vector<SnapshotIndex::Entry>& entries, Times& times) {
  const HostPaths paths = machine.place();
  const OpenedHistory history = openHistory(machine.posix, machine.log, paths.state("history.sqlite3"));
  times.plain.push_back(machine.seconds([&] { insertUnsorted(*history.connection, entries); }));
}

void measureJournalOff(Machine& machine, const ShardedEntries& tree, Times& times) {
  const HostPaths paths = machine.place();
  const OpenedHistory history = openHistory(machine.posix, machine.log, paths.state("history.sqlite3"));
  history.connection->execute("PRAGMA journal_mode=DELETE; PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF");
  times.journalOff.push_back(
      machine.seconds([&] { commitHistoryBaseline(*history.connection, volume, Xid{1}, tree); }));
}

// Gives the size of the delta.
std::size_t measureStore(Machine& machine, const std::vector<SnapshotIndex::Entry>& entries, const ShardedEntries& tree,
                         Times& times) {
  SnapshotHistoryStore store(machine.dispatch, machine.posix, machine.log, machine.place());
  store.recordPending(volume, Xid{1}, "snapshot", Date());
  times.baseline.push_back(machine.seconds([&] { store.commitBaseline(volume, {.xid = Xid{1}}, tree); }));
  times.emptyLog.push_back(machine.seconds([&] { store.emptyLog(); }));
  const auto read = [&] {
    store.consistentRead({}, [](HistoryConnection& connection) {
      if (readHead(connection) == 0) std::abort();
    });
  };
  read();  // into the caches
  times.read.push_back(machine.seconds(read));
  std::size_t size = 0;
  for (std::uint64_t xid = 2; xid < 2 + deltasEach; ++xid) {
    store.recordPending(volume, Xid{xid}, "snapshot", Date());
    // As many again go back to what they were, from the second one on.
    const ShardedEntries next = treeOf(machine, entries, 2000, xid);
    HistoryDelta delta;
    times.compute.push_back(machine.seconds([&] { delta = store.computeDelta(volume, next); }));
    times.commit.push_back(machine.seconds([&] { store.commitDelta(volume, Xid{xid - 1}, {.xid = Xid{xid}}, delta); }));
    size = delta.size();
  }
  return size;
}

// At most, for each entry of a delta in which everything differs.
double bytesPerDeltaEntry(Machine& machine, const std::vector<SnapshotIndex::Entry>& entries,
                          const ShardedEntries& tree) {
  SnapshotHistoryStore store(machine.dispatch, machine.posix, machine.log, machine.place());
  store.recordPending(volume, Xid{1}, "snapshot", Date());
  store.commitBaseline(volume, {.xid = Xid{1}}, tree);
  const ShardedEntries other = treeOf(machine, entries, 1, 0);
  const bench::CountedMemory memory;
  const std::size_t size = store.computeDelta(volume, other).size();
  return static_cast<double>(memory.most()) / static_cast<double>(size);
}

struct Goal {
  const char* name;
  double ratio;
  double goal;
  bool least;  // the ratio has to reach the goal; else must not pass it
  [[nodiscard]] bool isHalfReached() const { return least ? ratio >= 1 + (goal - 1) / 2 : ratio <= goal * 2; }
};

int run(std::size_t count, int rounds) {
  Machine machine;
  const std::vector<SnapshotIndex::Entry> entries = makeEntries(count);
  const ShardedEntries tree = treeOf(machine, entries, 0, 0);
  Times times;
  std::size_t deltaSize = 0;
  for (int round = 0; round < rounds; ++round) {
    measurePlain(machine, entries, times);
    deltaSize = measureStore(machine, entries, tree, times);
    measureJournalOff(machine, tree, times);
  }
  const double bytes = bytesPerDeltaEntry(machine, entries, tree);
  const auto ms = [](const std::vector<double>& values) { return median(values) * 1e3; };
  std::printf("%zu entries, delta of %zu, %d rounds\n", count, deltaSize, rounds);
  std::printf("baseline %.1f ms (and %.1f ms to empty the log, with nobody waiting)\n", ms(times.baseline),
              ms(times.emptyLog));
  std::printf("unsorted with indexes %.1f ms, without a journal %.1f ms\n", ms(times.plain), ms(times.journalOff));
  std::printf("computeDelta %.1f ms, reading the head %.1f ms, commitDelta %.2f ms\n", ms(times.compute),
              ms(times.read), ms(times.commit));
  const Goal goals[] = {
      {"baseline_speed_ratio", median(times.plain) / median(times.baseline), 2, true},
      {"baseline_journal_ratio", median(times.baseline) / median(times.journalOff), 1.3, false},
      {"compute_read_ratio", median(times.compute) / median(times.read), 1.5, false},
      {"delta_baseline_ratio", median(times.commit) / median(times.baseline), 1.0 / 80, false},
      {"delta_bytes_per_entry", bytes, 600, false},
  };
  bool isWell = true;
  for (const Goal& goal : goals) {
    std::printf("%s %.4f (goal %s %.4f)\n", goal.name, goal.ratio, goal.least ? "at least" : "at most", goal.goal);
    isWell = isWell && goal.isHalfReached();
  }
  if (!isWell) std::printf("FAILED: not even half of what is asked\n");
  return isWell ? 0 : 1;
}

}  // namespace
}  // namespace quillmark

int main(int count, char** arguments) {
  return quillmark::run(count > 1 ? std::strtoull(arguments[1], nullptr, 10) : 100'000,
                        count > 2 ? std::atoi(arguments[2]) : 3);
}
