#include "platform/sim/SqliteInSimulation.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <utility>
#include <vector>

#include "platform/linux/Threads.h"
#include "platform/sim/LifeHost.h"
#include "platform/sim/SqliteFiles.h"

// The one process-wide installation of the simulator: SQLite knows only process-wide mutexes and file systems.
namespace quillmark::sim {
namespace {

// How many of SQLite's short mutexes this thread holds. No fiber gives up its turn while it holds one, so that nobody
// ever has to wait for one, and none is held by a frozen life.
thread_local int shortMutexesHeld = 0;

Scheduler* schedulerOfFiber() {
  Scheduler* const scheduler = Scheduler::current();
  return scheduler && scheduler->running() ? scheduler : nullptr;
}

class SqliteMutex {
 public:
  virtual ~SqliteMutex() = default;
  virtual void enter() = 0;
  virtual bool tryEnter() = 0;
  virtual void leave() = 0;
};

// Recursive and of real threads: for static mutexes, and for connections outside every simulation.
class ThreadMutex final : public SqliteMutex {
 public:
  ThreadMutex() {
    pthread_mutexattr_t attributes;
    ::pthread_mutexattr_init(&attributes);
    ::pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    ::pthread_mutex_init(&mutex_, &attributes);
    ::pthread_mutexattr_destroy(&attributes);
  }
  ~ThreadMutex() override { ::pthread_mutex_destroy(&mutex_); }
  void enter() override {
    ::pthread_mutex_lock(&mutex_);
    ++shortMutexesHeld;
  }
  bool tryEnter() override {
    if (::pthread_mutex_trylock(&mutex_) != 0) return false;
    ++shortMutexesHeld;
    return true;
  }
  void leave() override {
    --shortMutexesHeld;
    ::pthread_mutex_unlock(&mutex_);
  }

 private:
  pthread_mutex_t mutex_;
};

// Held across a statement, by a fiber or by the simulation's thread outside fibers.
class ConnectionMutex final : public SqliteMutex {
 public:
  explicit ConnectionMutex(Scheduler& scheduler) : scheduler_(scheduler) {}

  void enter() override {
    if (shortMutexesHeld == 0) scheduler_.maybeYield();
    while (!tryEnter()) {
      scheduler_.requireFiber("entering a database that a fiber is in");
      if (shortMutexesHeld > 0) os::dieSaying(scheduler_.seedLine() + "SQLite waits with a short mutex held");
      waiting_.push_back(scheduler_.running());
      scheduler_.park({.what = "waits for a database connection", .holder = holder_});
    }
  }
  bool tryEnter() override {
    if (depth_ > 0 && holder_ != scheduler_.running()) return false;
    holder_ = scheduler_.running();
    ++depth_;
    return true;
  }
  void leave() override {
    if (--depth_ > 0) return;
    holder_ = nullptr;
    for (Strand* const strand : std::exchange(waiting_, {})) scheduler_.resume(*strand);
  }

 private:
  Scheduler& scheduler_;
  Strand* holder_ = nullptr;
  int depth_ = 0;
  std::vector<Strand*> waiting_;
};

// SQLite's own names for its static mutexes begin behind the two dynamic kinds.
constexpr int firstStatic = 2;
constexpr std::size_t staticCount = 16;

SqliteMutex* staticMutex(int kind) {
  static std::array<ThreadMutex, staticCount> mutexes;
  return &mutexes.at(static_cast<std::size_t>(kind - firstStatic));
}

bool isStatic(const SqliteMutex* mutex) {
  return mutex >= staticMutex(firstStatic) && mutex <= staticMutex(firstStatic + static_cast<int>(staticCount) - 1);
}

SqliteMutex* asOurs(sqlite3_mutex* mutex) { return reinterpret_cast<SqliteMutex*>(mutex); }

sqlite3_mutex* allocateMutex(int kind) {
  if (kind >= firstStatic) return reinterpret_cast<sqlite3_mutex*>(staticMutex(kind));
  Scheduler* const scheduler = Scheduler::current();
  SqliteMutex* mutex = kind == SQLITE_MUTEX_RECURSIVE && scheduler
                           ? static_cast<SqliteMutex*>(new ConnectionMutex(*scheduler))
                           : new ThreadMutex();
  return reinterpret_cast<sqlite3_mutex*>(mutex);
}

void freeMutex(sqlite3_mutex* mutex) {
  if (!isStatic(asOurs(mutex))) delete asOurs(mutex);
}

constexpr sqlite3_mutex_methods mutexMethods = {
    .xMutexInit = [] { return SQLITE_OK; },
    .xMutexEnd = [] { return SQLITE_OK; },
    .xMutexAlloc = allocateMutex,
    .xMutexFree = freeMutex,
    .xMutexEnter = [](sqlite3_mutex* mutex) { asOurs(mutex)->enter(); },
    .xMutexTry = [](sqlite3_mutex* mutex) { return asOurs(mutex)->tryEnter() ? SQLITE_OK : SQLITE_BUSY; },
    .xMutexLeave = [](sqlite3_mutex* mutex) { asOurs(mutex)->leave(); },
    .xMutexHeld = nullptr,
    .xMutexNotheld = nullptr,
};

sqlite3_vfs* real(sqlite3_vfs* vfs) { return static_cast<sqlite3_vfs*>(vfs->pAppData); }

int sleepMicroseconds(sqlite3_vfs* vfs, int microseconds) {
  if (!Scheduler::current()) return real(vfs)->xSleep(real(vfs), microseconds);
  // Outside fibers nobody else can go on meanwhile, so that waiting is in vain.
  if (Scheduler* const scheduler = schedulerOfFiber(); scheduler && shortMutexesHeld == 0) {
    scheduler->running()->life->life()->delay(std::chrono::microseconds(microseconds));
  }
  return microseconds;
}

int randomBytes(sqlite3_vfs* vfs, int count, char* into) {
  Scheduler* const scheduler = Scheduler::current();
  if (!scheduler) return real(vfs)->xRandomness(real(vfs), count, into);
  for (int i = 0; i < count; ++i) into[i] = static_cast<char>(scheduler->draws().next());
  return count;
}

// Julian day number in milliseconds.
int currentTime(sqlite3_vfs* vfs, sqlite3_int64* time) {
  Scheduler* const scheduler = Scheduler::current();
  if (!scheduler) return real(vfs)->xCurrentTimeInt64(real(vfs), time);
  constexpr sqlite3_int64 unixEpoch = 210'866'760'000'000;
  *time = unixEpoch + static_cast<sqlite3_int64>(scheduler->clock().now().secondsSince1970() * 1000);
  return SQLITE_OK;
}

int currentTimeInDays(sqlite3_vfs* vfs, double* days) {
  sqlite3_int64 milliseconds = 0;
  const int status = currentTime(vfs, &milliseconds);
  *days = static_cast<double>(milliseconds) / 86'400'000.0;
  return status;
}

sqlite3_vfs makeVfs(sqlite3_vfs* original) {
  sqlite3_vfs vfs = *original;
  vfs.iVersion = std::min(vfs.iVersion, 2);
  vfs.pNext = nullptr;
  vfs.szOsFile = SqliteFiles::fileBytes(*original);
  vfs.zName = "simulation";
  vfs.pAppData = original;
  vfs.xOpen = [](sqlite3_vfs* self, sqlite3_filename name, sqlite3_file* file, int flags, int* outFlags) {
    return SqliteFiles::open(*real(self), name, file, flags, outFlags);
  };
  vfs.xDelete = [](sqlite3_vfs* self, const char* name, int sync) {
    return SqliteFiles::unlink(*real(self), name, sync != 0);
  };
  vfs.xAccess = [](sqlite3_vfs* self, const char* name, int flags, int* result) {
    return SqliteFiles::askAbout(*real(self), name, flags, result);
  };
  vfs.xFullPathname = [](sqlite3_vfs* self, const char* name, int size, char* into) {
    return real(self)->xFullPathname(real(self), name, size, into);
  };
  vfs.xDlOpen = nullptr;
  vfs.xDlError = nullptr;
  vfs.xDlSym = nullptr;
  vfs.xDlClose = nullptr;
  vfs.xRandomness = randomBytes;
  vfs.xSleep = sleepMicroseconds;
  vfs.xCurrentTime = currentTimeInDays;
  vfs.xGetLastError = [](sqlite3_vfs* self, int size, char* into) {
    return real(self)->xGetLastError(real(self), size, into);
  };
  vfs.xCurrentTimeInt64 = currentTime;
  return vfs;
}

bool install() {
  ::sqlite3_shutdown();
  if (::sqlite3_config(SQLITE_CONFIG_MUTEX, &mutexMethods) != SQLITE_OK || ::sqlite3_initialize() != SQLITE_OK) {
    os::dieSaying("SQLite can't be given the simulator's mutexes");
  }
  static sqlite3_vfs vfs = makeVfs(::sqlite3_vfs_find(nullptr));
  return ::sqlite3_vfs_register(&vfs, 1) == SQLITE_OK;
}

}  // namespace

void runSqliteInSimulations() {
  static const bool installed = install();
  if (!installed) os::dieSaying("SQLite can't be given the simulator's file system");
  ::sqlite3_randomness(0, nullptr);
}

}  // namespace quillmark::sim
