#include "snapshots/VolumeService.h"

#include <unicode/coll.h>

#include <algorithm>
#include <array>
#include <memory>
#include <numeric>
#include <set>

#include "base/Text.h"
#include "platform/Disks.h"
#include "platform/SnapshotCalls.h"
#include "platform/dispatch.h"
#include "snapshots/VolumeResolver.h"

namespace quillmark {
namespace {

constexpr double infoDeadline = 15;
constexpr double listDeadline = 20;
constexpr std::size_t outputLimit = 8'388'608;
constexpr Seconds factsLifetime{60};

constexpr std::array<std::pair<std::string_view, std::string_view>, 8> typeByRole{{
    {"data", "APFS Data Volume"},
    {"system", "APFS System Volume"},
    {"preboot", "APFS Preboot Volume"},
    {"recovery", "APFS Recovery Volume"},
    {"vm", "APFS VM Volume"},
    {"update", "APFS Update Volume"},
    {"xart", "APFS xART Volume"},
    {"hardware", "APFS Hardware Volume"},
}};

constexpr std::array<std::pair<std::string_view, std::string_view>, 9> busByClass{{
    {"IOPCIDevice", "PCI-Express"},
    {"IONVMeController", "NVMe"},
    {"IONVMeBlockStorageDevice", "NVMe"},
    {"IOUSBHostDevice", "USB"},
    {"IOUSBDevice", "USB"},
    {"IOThunderboltSwitch", "Thunderbolt"},
    {"IOThunderboltPort", "Thunderbolt"},
    {"AppleSDXC", "SD Card"},
    {"IOAHCIBlockStorageDevice", "SATA / AHCI"},
}};

template <std::size_t count>
std::optional<std::string> find(const std::array<std::pair<std::string_view, std::string_view>, count>& table,
                                std::string_view key) {
  for (const auto& [known, value] : table) {
    if (known == key) return std::string(value);
  }
  return std::nullopt;
}

std::optional<std::string> busOfClass(const std::string& name) {
  if (name.starts_with("AppleANS") || name.starts_with("AppleEmbeddedNVMe")) return "Apple Fabric";
  return find(busByClass, name);
}

std::string volumeTypeOf(const std::optional<std::string>& role) {
  return find(typeByRole, asciiLower(role.value_or(""))).value_or("APFS Volume");
}

std::uint64_t differenceOrZero(std::uint64_t from, std::uint64_t what) { return from > what ? from - what : 0; }

void sortByName(std::vector<APFSVolume>& volumes) {
  UErrorCode status = U_ZERO_ERROR;
  // A service without a language sorts as people do all the same, not by bytes.
  const icu::Locale& machine = icu::Locale::getDefault();
  const bool hasLanguage = std::string_view(machine.getVariant()) != "POSIX";
  const std::unique_ptr<icu::Collator> collator(
      icu::Collator::createInstance(hasLanguage ? machine : icu::Locale::getRoot(), status));
  if (collator) collator->setStrength(icu::Collator::SECONDARY);
  std::stable_sort(volumes.begin(), volumes.end(), [&](const APFSVolume& a, const APFSVolume& b) {
    if (!collator || U_FAILURE(status)) return a.name < b.name;
    UErrorCode compared = U_ZERO_ERROR;
    return collator->compareUTF8(a.name, b.name, compared) == UCOL_LESS;
  });
}

}  // namespace

struct VolumeService::Candidate {
  std::string bsd;
  Uuid uuid;
  std::string name;
  std::optional<std::string> mountPath;
  std::optional<std::string> role;
  bool isInternal = false;
  std::optional<std::string> device;
  std::optional<std::string> protocolName;
};

VolumeService::VolumeService(Dispatch& dispatch, Disks& disks, SnapshotCalls& calls, Processes& processes,
                             PropertyLists& propertyLists, const HostPaths& paths)
    : disks_(disks), calls_(calls), propertyLists_(propertyLists), clock_(dispatch.clock()), diskutil_(paths.diskutil),
      runner_(dispatch, processes), factsLock_(dispatch) {}

std::vector<APFSVolume> VolumeService::listVolumes(bool detailed, bool forceRefresh) {
  std::vector<APFSVolume> volumes;
  if (!disks_.startSession()) return volumes;
  const std::vector<Candidate> found = candidates(detailed);
  Facts facts;
  if (detailed) {
    std::vector<std::string> names, signature;
    for (const Candidate& candidate : found) {
      names.push_back(candidate.bsd);
      signature.push_back(candidate.bsd + "|" + candidate.mountPath.value_or(""));
    }
    std::sort(signature.begin(), signature.end());
    facts = diskutilFacts(names, signature, forceRefresh);
  }
  for (const Candidate& candidate : found) {
    if (auto volume = build(candidate, detailed, facts)) volumes.push_back(std::move(*volume));
  }
  sortByName(volumes);
  return volumes;
}

std::vector<VolumeService::Candidate> VolumeService::candidates(bool detailed) {
  std::vector<Candidate> found;
  std::set<Uuid> seen;
  for (const std::string& path : volumePathsToWalk(disks_)) {
    std::optional<Candidate> candidate = candidateAt(path, detailed);
    if (candidate && seen.insert(candidate->uuid).second) found.push_back(std::move(*candidate));
  }
  return found;
}

std::optional<VolumeService::Candidate> VolumeService::candidateAt(const std::string& path, bool detailed) {
  const std::optional<DiskDescription> description = disks_.describe(path);
  if (!description) return std::nullopt;
  const std::optional<std::string> role = roleOf(*description);
  if (!isServedVolume(*description, role) || !description->volumeUuid) return std::nullopt;
  // A disk image, as the light form can tell.
  if (!detailed && description->deviceProtocol == "Virtual Interface") return std::nullopt;
  return Candidate{description->mediaBsdName.value_or(""),
                   *description->volumeUuid,
                   description->volumeName.value_or("Unknown"),
                   description->volumePath,
                   role,
                   description->deviceInternal.value_or(false),
                   description->deviceModel,
                   description->deviceProtocol};
}

std::optional<APFSVolume> VolumeService::build(const Candidate& candidate, bool detailed, const Facts& facts) {
  const auto answered = facts.info.find(candidate.bsd);
  const std::optional<DiskutilInfoSummary> summary =
      answered == facts.info.end() ? std::optional<DiskutilInfoSummary>() : answered->second;

  APFSVolume volume;
  const std::optional<std::string> told =
      detailed ? (summary ? summary->busProtocol : std::optional<std::string>()) : candidate.protocolName;
  volume.connectionBus = told ? told : busFromRegistry(candidate.bsd).value_or("Unknown");
  if (volume.connectionBus == "Disk Image") return std::nullopt;
  volume.id = candidate.uuid.upper();
  volume.name = candidate.name;
  volume.bsdName = candidate.bsd;
  volume.mountPath = candidate.mountPath;
  volume.role = candidate.role;
  volume.isAPFSData = isDataRole(candidate.role);
  volume.isProtected = candidate.mountPath && demandsContentProtection(calls_, *candidate.mountPath);
  volume.deviceName = candidate.device;
  volume.isInternal = candidate.isInternal;
  volume.volumeType = volumeTypeOf(candidate.role);
  volume.isEncrypted = summary && summary->isEncryptedThisVolume;
  fillCapacities(volume, detailed);
  fillContainer(volume, detailed, facts);
  return volume;
}

void VolumeService::fillCapacities(APFSVolume& volume, bool detailed) {
  if (!volume.mountPath) return;
  if (detailed) {
    const VolumeCapacities capacities = disks_.capacities(*volume.mountPath);
    volume.totalBytes = capacities.total.value_or(0);
    volume.availableBytes = capacities.availableForImportantUsage.value_or(capacities.available.value_or(0));
  } else if (const auto status = calls_.statfs(*volume.mountPath)) {
    volume.totalBytes = status->blocks * status->blockSize;
    volume.availableBytes = status->availableBlocks * status->blockSize;
  }
  volume.usedBytes = differenceOrZero(volume.totalBytes, volume.availableBytes);
}

void VolumeService::fillContainer(APFSVolume& volume, bool detailed, const Facts& facts) {
  const auto container = facts.containers.find(containerBSDName(volume.bsdName));
  if (container == facts.containers.end()) {
    if (detailed) volume.containerVolumeCount = countFromRegistry(volume.bsdName);
    return;
  }
  const APFSContainerInfo& info = container->second;
  if (const auto own = info.volumeUsage.find(volume.bsdName); own != info.volumeUsage.end()) {
    volume.ownUsedBytes = own->second;
  }
  const std::uint64_t all = std::accumulate(info.volumeUsage.begin(), info.volumeUsage.end(), std::uint64_t{0},
                                            [](std::uint64_t sum, const auto& usage) { return sum + usage.second; });
  volume.otherVolumesUsedBytes = differenceOrZero(all, volume.ownUsedBytes.value_or(0));
  volume.containerVolumeCount = info.visibleVolumeCount;
  if (const auto meta = info.volumeMeta.find(volume.bsdName); meta != info.volumeMeta.end()) {
    volume.isFileVault = meta->second.isFileVault;
    volume.isLocked = meta->second.isLocked;
  }
}

std::optional<std::string> VolumeService::busFromRegistry(const std::string& bsdName) {
  if (bsdName.empty()) return std::nullopt;
  const auto classes = disks_.registryClasses(bsdName);
  if (!classes) return std::nullopt;
  for (const std::string& name : *classes) {
    if (auto bus = busOfClass(name)) return bus;
  }
  return "Unknown";
}

std::int64_t VolumeService::countFromRegistry(const std::string& bsdName) {
  const std::string container = containerBSDName(bsdName);
  const auto names = disks_.mediaBsdNames();
  if (container.empty() || !names) return 1;
  const std::string prefix = container + "s";
  const auto isVolumeOfIt = [&](const std::string& name) {
    return name.size() > prefix.size() && name.starts_with(prefix) &&
           name.find_first_not_of("0123456789", prefix.size()) == std::string::npos;
  };
  return std::max<std::int64_t>(1, std::count_if(names->begin(), names->end(), isVolumeOfIt));
}

// The commands run outside the lock: two callers at once may both run them, and the one that stores last wins.
VolumeService::Facts VolumeService::diskutilFacts(const std::vector<std::string>& bsdNames,
                                                  const std::vector<std::string>& signature, bool forceRefresh) {
  std::optional<Facts> cached;
  {
    MutexLock lock(factsLock_);
    cached = facts_;
  }
  const Date now = clock_.now();
  const bool usable =
      !forceRefresh && cached && cached->signature == signature && now - cached->takenAt < factsLifetime;
  Facts facts = usable ? std::move(*cached) : Facts{runList(), {}, now, signature};
  bool grown = !usable;
  for (const std::string& name : bsdNames) {
    if (facts.info.contains(name)) continue;
    facts.info[name] = runInfo(name);
    grown = true;
  }
  if (!usable) facts.takenAt = clock_.now();
  if (grown) {
    MutexLock lock(factsLock_);
    facts_ = facts;
  }
  return facts;
}

std::optional<DiskutilInfoSummary> VolumeService::runInfo(const std::string& bsdName) {
  if (bsdName.empty()) return std::nullopt;
  const auto output = runner_.run(diskutil_, {"info", "-plist", bsdName}, std::nullopt, infoDeadline, outputLimit);
  return output.status == 0 ? parseInfo(propertyLists_, output.standardOutput) : std::nullopt;
}

APFSContainers VolumeService::runList() {
  const auto output = runner_.run(diskutil_, {"apfs", "list", "-plist"}, std::nullopt, listDeadline, outputLimit);
  return output.status == 0 ? parseContainers(propertyLists_, output.standardOutput) : APFSContainers();
}

}  // namespace quillmark
