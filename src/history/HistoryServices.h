// HistoryServices: what the history works on and with. The references outlive it.
#pragma once

#include "platform/HostPaths.h"

namespace quillmark {

class APFSManager;
class AuditTrail;
class DirectoryReader;
class Disks;
class Dispatch;
class HelperLog;
class HistoryCaches;
class MemoryReturn;
class MountPinRegistry;
class PlatformLog;
class Posix;
class PowerSources;
class Random;
class SnapshotCalls;
class VolumeService;

struct HistoryServices {
  Dispatch& dispatch;
  Random& random;
  Posix& posix;
  SnapshotCalls& calls;
  Disks& disks;
  DirectoryReader& directories;
  PowerSources& power;
  PlatformLog& platformLog;
  HelperLog& log;
  HostPaths paths;
  APFSManager& apfs;
  VolumeService& volumes;
  MountPinRegistry& mountPins;
  AuditTrail& audit;
  HistoryCaches* caches = nullptr;  // absent: nothing is kept
  MemoryReturn* memory = nullptr;   // absent: what was used stays with the process
};

}  // namespace quillmark
