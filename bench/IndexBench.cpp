// Two trees made and compared, and what a tree occupies, against the plain way: std::unordered_map keyed by path in as many
// shards, on as many threads. Both get the same entries from the same lists, in turns in one run; medians of five.
//
//   quillmark_index_bench [ENTRIES]     200,000 unless told
//
// Goals with 1,000,000 entries: at least 2 times faster, building included; at most 0.65 of the memory. Few entries are
// no measure of speed: a map that lies in the processor's caches is as fast. Ends with 1 at less than half the ratio, or
// half of the saving.
#include <malloc.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <unordered_map>

#include "bench/CountedMemory.h"
#include "history/index/Comparison.h"
#include "platform/linux/Clock.h"
#include "platform/linux/Dispatch.h"

namespace quillmark::SnapshotIndex {
namespace {

constexpr double speedGoal = 2, memoryGoal = 0.65;
constexpr int rounds = 5;

// ---- the entries

using Lists = std::array<std::vector<Entry>, shardCount>;

std::string word(std::mt19937_64& random, std::size_t least, std::size_t most) {
  std::string text(least + random() % (most - least + 1), 'a');
  for (char& c : text) c = static_cast<char>('a' + random() % 26);
  return text;
}

// A home of some depth, a tenth of it directories: runs of siblings, as a walk gives them.
std::vector<std::vector<Entry>> makeRuns(std::size_t count, std::mt19937_64& random) {
  std::vector<Entry> directories;
  std::vector<std::vector<Entry>> runs;
  directories.emplace_back(Facts{.type = EntryType::directory, .inode = 256}, "/home/ada");
  runs.push_back({directories.front()});
  for (std::size_t made = 1; made < count;) {
    const Entry parent = directories[directories.size() - 1 - random() % std::min<std::size_t>(directories.size(), 50)];
    const bool isDeep = parent.path.size() > 70;
    auto& run = runs.emplace_back();
    for (std::size_t siblings = 1 + random() % 19; siblings > 0 && made < count; --siblings, ++made) {
      Entry entry;
      const bool isDirectory = !isDeep && (siblings == 1 || random() % 20 == 0);
      entry.type = isDirectory ? EntryType::directory : EntryType::file;
      entry.inode = 257 + made;
      entry.parentInode = parent.inode;
      entry.mtimeNS = static_cast<std::int64_t>(1'700'000'000'000'000'000 + random() % 1'000'000'000'000'000);
      entry.metaBits = metaBits(isDirectory ? 0755 : 0644, 1000, 1000, 0);
      if (!isDirectory) {
        entry.size = static_cast<std::int64_t>(random() % 100'000);
        entry.generation = static_cast<std::int64_t>(1 + random() % 1000);
      }
      entry.path = parent.path + "/" + word(random, 4, isDirectory ? 12 : 24);
      if (!isDirectory) entry.path += ".txt";
      if (isDirectory) directories.push_back(entry);
      run.push_back(std::move(entry));
    }
    if (directories.size() > 1 && random() % 4 == 0)
      std::swap(directories.back(), directories[random() % directories.size()]);
  }
  return runs;
}

// In a hundred files one is written anew, and in two hundred each one is gone, new or moved.
std::vector<std::vector<Entry>> changed(std::vector<std::vector<Entry>> runs, std::mt19937_64& random) {
  std::uint64_t newInode = 1'000'000'000;
  for (auto& run : runs) {
    std::vector<Entry> left;
    for (Entry& entry : run) {
      const auto chance = entry.type == EntryType::file ? random() % 200 : 199;
      if (chance == 0) continue;
      if (chance < 3) ++entry.generation;
      if (chance == 3) entry.path += ".moved";
      if (chance == 4) {
        left.push_back(entry);
        left.back().path += ".new";
        left.back().inode = ++newInode;
      }
      left.push_back(std::move(entry));
    }
    run = std::move(left);
  }
  std::shuffle(runs.begin(), runs.end(), random);  // no two walks by several threads go the same way
  return runs;
}

Lists byShard(const std::vector<std::vector<Entry>>& runs) {
  Lists lists;
  for (const auto& run : runs) {
    for (const Entry& entry : run) lists[shardOf(entry.path)].push_back(entry);
  }
  return lists;
}

// ---- the two ways

class Machine final {
 public:
  // On two threads, as many as the processors that this program keeps to.
  void onEachShard(FunctionRef<void(std::size_t)> work) {
    std::atomic<std::size_t> next = 0;
    const auto takeAll = [&] {
      for (std::size_t shard; (shard = next++) < shardCount;) work(shard);
    };
    Group group(dispatch);
    group.enter();
    dispatch.global(QualityOfService::userInitiated)->async([&] {
      takeAll();
      group.leave();
    });
    takeAll();
    group.wait();
  }
  template <class Work>
  double seconds(const Work& work) {
    const MonotonicTime from = clock.monotonic();
    work();
    return std::chrono::duration<double>(clock.monotonic() - from).count();
  }

  os::LinuxClock clock;
  os::LinuxDispatch dispatch{clock};
};

struct Ours {
  using Tree = ShardedEntries;
  static Tree make(Machine& machine, const Lists& lists) {
    EntryBuckets buckets;
    machine.onEachShard([&](std::size_t i) {
      for (const Entry& entry : lists[i]) buckets[i].append(entry.view());
    });
    return ShardedEntries(machine.dispatch, std::move(buckets));
  }
  static DiffOutput compare(Machine& machine, const Tree& a, const Tree& b) {
    return diffSharded(machine.dispatch, a, b, ComparisonMode::snapshotLineage);
  }
};

struct Plain {
  using Map = std::unordered_map<std::string, Facts>;
  using Tree = std::vector<Map>;
  static Tree make(Machine& machine, const Lists& lists) {
    Tree tree(shardCount);
    machine.onEachShard([&](std::size_t i) {
      tree[i].reserve(lists[i].size());
      for (const Entry& entry : lists[i]) tree[i].insert_or_assign(entry.path, entry);
    });
    return tree;
  }
  static bool isUnchanged(const Facts& a, const Facts& b) {
    if (a.inode != b.inode || a.metaBits != b.metaBits) return false;
    return a.type == EntryType::directory ||
           (a.size == b.size && a.mtimeNS == b.mtimeNS && a.generation == b.generation);
  }
  static DiffOutput compare(Machine& machine, const Tree& a, const Tree& b) {
    std::vector<DiffOutput> parts(shardCount);
    machine.onEachShard([&](std::size_t i) {
      for (const auto& [path, facts] : a[i]) {
        const auto found = b[i].find(path);
        if (found == b[i].end()) {
          parts[i].deleted.emplace_back(facts, path);
        } else if (found->second.type != facts.type) {
          parts[i].replaced.push_back({Entry(facts, path), Entry(found->second, path)});
        } else if (!isUnchanged(facts, found->second)) {
          parts[i].modified.push_back({Entry(facts, path), Entry(found->second, path)});
        }
      }
      for (const auto& [path, facts] : b[i]) {
        if (!a[i].contains(path)) parts[i].added.emplace_back(facts, path);
      }
    });
    DiffOutput all;
    const auto add = [](auto& list, auto& part) {
      list.insert(list.end(), std::make_move_iterator(part.begin()), std::make_move_iterator(part.end()));
    };
    for (DiffOutput& part : parts) {
      add(all.added, part.added);
      add(all.deleted, part.deleted);
      add(all.modified, part.modified);
      add(all.replaced, part.replaced);
    }
    detectMoves(all);
    return capped(std::move(all), rowLimit);
  }
};

// ---- the measurement

struct Times {
  std::vector<double> build, compare, all;
};
struct Memory {
  double bytes, most;
};

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + std::ssize(values) / 2, values.end());
  return values[values.size() / 2];
}

template <class Way>
std::array<std::size_t, 5> measureTime(Machine& machine, const Lists& first, const Lists& second, Times& times) {
  ::malloc_trim(0);  // or the one pays for tidying up after the other
  std::optional<typename Way::Tree> a, b;
  const double build = machine.seconds([&] {
    a.emplace(Way::make(machine, first));
    b.emplace(Way::make(machine, second));
  });
  DiffOutput output;
  const double compare = machine.seconds([&] { output = Way::compare(machine, *a, *b); });
  times.build.push_back(build);
  times.compare.push_back(compare);
  times.all.push_back(build + compare);
  return {output.added.size(), output.deleted.size(), output.modified.size(), output.replaced.size(),
          output.moved.size()};
}

template <class Way>
Memory measureMemory(Machine& machine, const Lists& lists, std::size_t count) {
  const bench::CountedMemory memory;
  const auto tree = Way::make(machine, lists);
  return {static_cast<double>(memory.now()) / static_cast<double>(count),
          static_cast<double>(memory.most()) / static_cast<double>(count)};
}

void keepToTwoProcessors() {
  cpu_set_t all, two;
  CPU_ZERO(&two);
  if (::sched_getaffinity(0, sizeof(all), &all) != 0) return;
  for (int i = 0; i < CPU_SETSIZE && CPU_COUNT(&two) < 2; ++i) {
    if (CPU_ISSET(i, &all)) CPU_SET(i, &two);
  }
  ::sched_setaffinity(0, sizeof(two), &two);
}

int run(std::size_t count) {
  keepToTwoProcessors();
  Machine machine;
  std::mt19937_64 random(20'260'301);
  const auto runs = makeRuns(count, random);
  const Lists first = byShard(runs), second = byShard(changed(runs, random));
  std::size_t bytes = 0;
  for (const auto& list : first) {
    for (const Entry& entry : list) bytes += entry.path.size();
  }

  Times ours, plain;
  for (int round = 0; round < rounds; ++round) {
    const auto oursFound = measureTime<Ours>(machine, first, second, ours);
    const auto plainFound = measureTime<Plain>(machine, first, second, plain);
    if (oursFound != plainFound) {
      std::fprintf(stderr, "The two ways don't find the same.\n");
      return 1;
    }
  }
  const Memory oursMemory = measureMemory<Ours>(machine, first, count);
  const Memory plainMemory = measureMemory<Plain>(machine, first, count);

  const double speed = median(plain.all) / median(ours.all);
  const double memory = oursMemory.bytes / plainMemory.bytes;
  std::printf("%zu entries, paths of %.1f bytes\n", count, static_cast<double>(bytes) / static_cast<double>(count));
  const auto row = [](const char* what, const Times& times, const Memory& taken) {
    std::printf("%-14s build %8.2f ms  compare %8.2f ms  memory %6.1f bytes an entry, %6.1f at most\n", what,
                median(times.build) * 1e3, median(times.compare) * 1e3, taken.bytes, taken.most);
  };
  row("trees", ours, oursMemory);
  row("unordered_map", plain, plainMemory);
  std::printf("speed_ratio %.2f (goal %.2f)\nmemory_ratio %.3f (goal %.2f)\n", speed, speedGoal, memory, memoryGoal);

  const bool isWell = speed >= speedGoal / 2 && memory <= 1 - (1 - memoryGoal) / 2;
  if (!isWell) std::printf("FAILED: not even half of what is asked\n");
  return isWell ? 0 : 1;
}

}  // namespace
}  // namespace quillmark::SnapshotIndex

int main(int count, char** arguments) {
  return quillmark::SnapshotIndex::run(count > 1 ? std::strtoull(arguments[1], nullptr, 10) : 200'000);
}
