// WitnessedCalls: the snapshot calls of a simulated process, which fail as the test has it, with an eye on what must never
// be done to a snapshot, whatever anybody's rules say.
// Ownership: borrows the calls and the volumes, which must outlive it.
// Threads:   confined to the simulation's thread.
#pragma once

#include <array>
#include <cerrno>
#include <map>
#include <set>
#include <string>

#include "SimulatedMonthsModel.h"
#include "base/Error.h"
#include "platform/sim/SimSnapshotCalls.h"
#include "snapshots/SnapshotProtection.h"

namespace quillmark::months {

struct Failures {
  std::set<Uuid> cannotList;
  std::set<Uuid> cannotTellProtected;
  std::set<std::string> cannotMeasure;  // mount points
  std::array<bool, cadences> cannotCreate{};
  bool cannotDelete = false;
  bool cannotAudit = false;
  std::set<std::string> cannotRead, cannotWrite;  // files of stores
  std::set<Uuid> refusesAttributes;
};

// What is true of the machine's snapshots, as those know who did it.
struct Facts {
  std::set<Xid> isProtected;
  std::set<Uuid> protectForeign;
};

class WitnessedCalls final : public SnapshotCalls {
 public:
  WitnessedCalls(sim::SimVolumes& volumes, Clock& clock, const Failures& failures, const Facts& facts)
      : calls_(volumes, clock), volumes_(volumes), failures_(failures), facts_(facts) {}

  SysResult<std::unique_ptr<OpenVolume>> open(const std::string& mountPoint, const VolumeUuid& expected) override {
    auto opened = calls_.open(mountPoint, expected);
    if (opened) opened_[opened->get()] = *Uuid::parse(expected.text());
    return opened;
  }
  SysStatus fs_snapshot_create(OpenVolume& volume, const std::string& name) override {
    const int cadence = cadenceOf(name);
    if (cadence < 0) broken.push_back("created " + name);
    if (failures_.cannotCreate.at(static_cast<std::size_t>(cadence))) return Errno{EIO};
    return calls_.fs_snapshot_create(volume, name);
  }
  SysStatus fs_snapshot_delete(OpenVolume& volume, const std::string& name, Xid meant) override {
    if (failures_.cannotDelete) return Errno{EIO};
    const Uuid uuid = opened_.at(&volume);
    if (facts_.isProtected.contains(meant)) broken.push_back("deleted though protected: " + name);
    if (kindOf(name) == NameKind::system) broken.push_back("deleted the operating system's: " + name);
    const bool isForeign = kindOf(name) == NameKind::foreign;
    if (isForeign && facts_.protectForeign.contains(uuid)) broken.push_back("deleted though foreign: " + name);
    int others = 0;
    for (const sim::SimSnapshot& other : volumes_.snapshots(uuid)) {
      others += other.xid != meant && kindOf(other.name) != NameKind::system;
    }
    if (others == 0) broken.push_back("deleted the last: " + name);
    for (const auto& mount : volumes_.mounts()) {
      if (mount.xid == meant) broken.push_back("deleted though mounted: " + name);
    }
    return calls_.fs_snapshot_delete(volume, name, meant);
  }
  SysResult<int> fs_snapshot_list(OpenVolume& volume, const AttributeList& attributes,
                                  std::span<std::byte> buffer) override {
    if (failures_.cannotList.contains(opened_.at(&volume))) return Errno{EIO};
    return calls_.fs_snapshot_list(volume, attributes, buffer);
  }
  SysStatus fs_snapshot_mount(OpenVolume& volume, const std::string& directory, const std::string& name, Xid meant,
                              std::uint32_t flags) override {
    return calls_.fs_snapshot_mount(volume, directory, name, meant, flags);
  }
  SysStatus unmount(const std::string& path, bool force) override { return calls_.unmount(path, force); }
  SysResult<FileSystemStatus> statfs(const std::string& path) override {
    if (failures_.cannotMeasure.contains(path)) return Errno{EIO};
    return calls_.statfs(path);
  }
  SysResult<std::vector<FileSystemStatus>> getmntinfo() override { return calls_.getmntinfo(); }
  bool waitForSpace(const std::string& mountPoint, std::chrono::nanoseconds duration) override {
    return calls_.waitForSpace(mountPoint, duration);
  }

  std::vector<std::string> broken;  // what must never have happened

 private:
  sim::SimSnapshotCalls calls_;
  sim::SimVolumes& volumes_;
  const Failures& failures_;
  const Facts& facts_;
  std::map<const OpenVolume*, Uuid> opened_;
};

// Protection that can't always be told.
class FailingProtection final : public SnapshotProtection {
 public:
  FailingProtection(SnapshotProtection& inner, const Failures& failures) : inner_(inner), failures_(failures) {}

  void ensureLoaded() override { inner_.ensureLoaded(); }
  std::unique_ptr<ProtectionGuard> lock() override { return inner_.lock(); }
  std::set<Xid> protectedXIDs(const VolumeInfo& volume) override {
    if (failures_.cannotTellProtected.contains(*Uuid::parse(volume.uuid))) throw posixError("read", volume.uuid, EIO);
    return inner_.protectedXIDs(volume);
  }
  bool setProtected(const VolumeInfo& volume, bool isProtected, FunctionRef<std::optional<Xid>()> xidOf) override {
    return inner_.setProtected(volume, isProtected, xidOf);
  }

 private:
  SnapshotProtection& inner_;
  const Failures& failures_;
};

}  // namespace quillmark::months
