#include "StoreMachine.h"
#include "platform/sim/FaultSweep.h"
#include "snapshots/SnapshotXIDResolutionCache.h"

namespace quillmark {
namespace {

using Xids = std::vector<Xid>;

const std::vector<RawSnapshotEntry> known{{"a", 17, Date::from1970(1'772'355'600)}};
const std::vector<RawSnapshotEntry> both{known[0], {"b", 18, Date::from1970(1'772'355'601)}};

class CacheLife {
 public:
  explicit CacheLife(sim::SimPosix& posix) : cache(threads_, posix, random_, log_, sim::hostPathsUnder(posix.root())) {}
  std::optional<Xids> lookup(const std::vector<RawSnapshotEntry>& entries) {
    return cache.lookup(dataUuid.upper(), entries);
  }

 private:
  PlainThreads threads_;
  os::LinuxRandom random_;
  sim::SimPlatformLog log_;

 public:
  SnapshotXIDResolutionCache cache;
};

// Goal:   whatever happens to its file, the cache gives the right XIDs or none.
// Method: learning two snapshots, and dropping one, with each call going wrong; another life asks.
TEST(SnapshotXIDCacheFaults, neverGiveAWrongXid) {
  bool wasRemembered = false;
  const auto complaints = sim::forEachFault(
      {.errors = {EIO, ENOSPC, EROFS}},
      [](sim::SimPosix& posix) { CacheLife(posix).cache.store(dataUuid.lower(), known, {Xid{5}}); },
      [](sim::SimPosix& posix) {
        CacheLife life(posix);
        life.cache.store(dataUuid.lower(), both, {Xid{5}, Xid{6}});
        EXPECT_EQ(life.lookup(both), (Xids{Xid{5}, Xid{6}})) << "memory serves without the file";
        EXPECT_EQ(life.lookup({both[1]}), Xids{Xid{6}});
      },
      [&](sim::SimPosix& posix, const sim::FaultRun& run) -> std::string {
        if (run.plan.fault == sim::Fault::fail && !run.completed) return "threw";
        const auto first = CacheLife(posix).lookup(known), second = CacheLife(posix).lookup({both[1]});
        if (first && *first != Xids{Xid{5}}) return "a wrong XID for the first";
        if (second && *second != Xids{Xid{6}}) return "a wrong XID for the second";
        wasRemembered |= run.powerCut && run.completed && second;
        return first || second ? "" : "both forgotten: the old file or the new one must be there";
      });
  EXPECT_THAT(complaints, ::testing::IsEmpty());
  EXPECT_TRUE(wasRemembered);
}

}  // namespace
}  // namespace quillmark
