// Machine: a simulated machine with volumes on which one helper's scheduler runs over the real stores, and the model beside
// it. Each operation happens to both; settle() then holds what the helper did against what the model says.
// Threads: confined to the simulation's thread.
// Errors:  Difference, with the seed and the moment, when the two part, or when something happened that never must.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "SimulatedMonthsHelper.h"
#include "SimulatedMonthsModel.h"

namespace quillmark::months {

class Difference final : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

enum class Store { schedules, settings, protection, clocks, notices, names, tags };
inline constexpr Store allStores[] = {Store::schedules, Store::settings, Store::protection, Store::clocks,
                                      Store::notices,   Store::names,    Store::tags};

class Machine final {
 public:
  Machine(std::uint64_t seed, Date start, std::string zone);

  // Time.
  [[nodiscard]] Moment now();
  [[nodiscard]] std::int64_t now1970();
  // Whatever the clock was set to meanwhile.
  [[nodiscard]] Moment lived() { return now() - jumped_; }
  void runUntil(Moment moment);
  void sleepUntil(Moment moment);
  void jump(std::int64_t seconds);
  void travel(const std::string& zone);

  // Volumes.
  enum class Attributes { kept, refused };
  void add(const Uuid& uuid, const std::string& name, bool isBackup, Attributes attributes = Attributes::kept);
  void takeAway(const Uuid& uuid);
  void bringBack(const Uuid& uuid);
  void setFree(const Uuid& uuid, std::int64_t bytes);

  // Snapshots. By the helper's own users it hears of.
  enum class By { user, stranger };
  void put(const Uuid& uuid, const std::string& name, double created, By by);
  void remove(const Uuid& uuid, const std::string& name);
  void protect(const Uuid& uuid, const std::string& name, bool isProtected);
  // Gives it a name for people, and a tag.
  void label(const Uuid& uuid, const std::string& name, const std::string& text);
  void mount(const Uuid& uuid, const std::string& name, bool isForIndexing);
  void unmount(const Uuid& uuid, const std::string& name);
  void setBytes(const Uuid& uuid, const std::string& name, std::int64_t bytes);

  // What users set; stamped as the service stamps it. False: refused.
  bool setPolicy(const Uuid& uuid, ModelPolicy policy, bool isDiskBroken = false);
  bool setSettings(bool automaticDeletion, int safetyHours, bool isDiskBroken = false);

  // The helper ends; the next one finds these stores broken, and those broken before whole again.
  enum class Broken { unreadable, garbled };
  void restart(const std::map<Store, Broken>& broken);

  enum class Failing { listing, measuring, protection };
  void fail(const Uuid& uuid, Failing what, bool fails);
  void failCreation(int cadence, bool fails);
  void failDeletion(bool fails);
  void failAudit(bool fails);
  // From the next write on.
  void failWrites(Store store, bool fails);
  [[nodiscard]] bool failsWrites(Store store) const;

  // A client asks for the health.
  void askHealth();

  // Nothing may be changed while the helper waits for something on a volume.
  [[nodiscard]] bool isBusy();
  void settle();
  [[nodiscard]] std::uint64_t lastDraw() const { return simulation_.lastDraw(); }

  Model model;
  int minuteWakes = 0, freeSpaceWakes = 0;
  std::vector<std::string> story;  // the last things that happened

 private:
  struct Wake {
    Moment at;
    bool isFreeSpace;
  };
  void start(std::unique_ptr<sim::SimPosix> files);
  void run(FunctionRef<void()> body);
  void happened(const std::string& what);
  void breakStores(sim::SimPosix& files, const std::map<Store, Broken>& broken);
  void restartModel(const std::map<Store, Broken>& broken);
  void tellModel();
  void compare();
  void compare(const std::string& uuid, const char* what, std::deque<std::string>& told,
               std::deque<std::string>& expected);
  void compareSnapshots();
  void watchHealth();
  void hearOfHealth(const std::string& notice);
  void trouble(Model::Trouble& store, Model::Trouble what);
  // Of something that can't be stored while the disk or the store is broken.
  bool store(Store store, Model::Trouble& state, bool isDiskBroken, FunctionRef<void()> work);
  [[noreturn]] void differ(const std::string& what);
  [[nodiscard]] ModelVolume& at(const Uuid& uuid) { return model.volumes.at(uuid.lower()); }
  [[nodiscard]] ModelSnapshot& at(const Uuid& uuid, const std::string& name);
  [[nodiscard]] sim::SimSnapshot simSnapshot(const Uuid& uuid, const std::string& name);

  const std::uint64_t seed_;
  sim::Simulation simulation_;
  sim::SimVolumes volumes_;
  Failures failures_;
  Facts facts_;
  Witness witness_;
  std::vector<Wake> wakes_;
  std::map<Uuid, sim::SimVolume> away_;
  std::map<Store, std::optional<std::string>> garbled_;  // with what they held
  std::set<Store> broken_;                               // that this process found so
  Moment shift_;                                         // from the monotonic clock to the wall's
  Moment jumped_ = 0;
  Moment healthAgreed_ = 0;             // by the monotonic clock: people know what there is to know
  std::optional<Moment> troubleSince_;  // unless the clock was set since
  std::uint64_t settled_ = 0, runs_ = 0;
  std::unique_ptr<Helper> helper_;
};

}  // namespace quillmark::months
