// A diskutil that tells the truth about a simulated machine.
#pragma once

#include "platform/PropertyList.h"
#include "platform/sim/SimPlatform.h"
#include "platform/sim/SimVolumes.h"

namespace quillmark {

// What it prints for "apfs listSnapshots" of the volume on that device.
inline std::string snapshotsAsDiskutilListsThem(sim::SimVolumes& volumes, PropertyLists& lists,
                                                const std::string& bsdName) {
  PropertyArray entries;
  for (const sim::SimVolume& volume : volumes.volumes()) {
    if (volume.description.mediaBsdName != bsdName) continue;
    for (const sim::SimSnapshot& snapshot : volume.snapshots) {
      entries.push_back(PropertyList(PropertyDictionary{{"SnapshotName", PropertyList(snapshot.name)},
                                                        {"SnapshotXID", PropertyList(snapshot.xid.value)}}));
    }
  }
  return lists.write(PropertyList(PropertyDictionary{{"Snapshots", PropertyList(std::move(entries))}}));
}

}  // namespace quillmark
