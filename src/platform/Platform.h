// Platform: every facility of one backend, for those who wire. Logic takes only the facilities it uses.
// Ownership: borrows all; the backend outlives every user.
#pragma once

#include "platform/Bundle.h"
#include "platform/HostPaths.h"

namespace quillmark {

class Clock;
class DirectoryReader;
class Disks;
class Dispatch;
class FileWork;
class PeerIdentities;
class PlatformLog;
class Posix;
class PowerSources;
class Processes;
class PropertyLists;
class Random;
class SnapshotCalls;
class ThisProcess;
class ThreadIdentity;
class TransportListener;
class Users;
class VolumeAttributes;

struct Platform {
  Dispatch& dispatch;
  Clock& clock;
  Random& random;
  Posix& posix;
  FileWork& fileWork;
  SnapshotCalls& snapshots;
  VolumeAttributes& attributes;
  Disks& disks;
  Processes& processes;
  PropertyLists& propertyLists;
  TransportListener& listener;
  PeerIdentities& peers;
  PlatformLog& log;
  ThisProcess& process;
  Users& users;
  PowerSources& power;
  DirectoryReader& directories;
  ThreadIdentity& threadIdentities;
  HostPaths paths;
  Bundle bundle;
};

}  // namespace quillmark
