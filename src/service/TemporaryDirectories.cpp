#include "service/TemporaryDirectories.h"

#include "platform/Platform.h"
#include "snapshots/SafeFS.h"
#include "snapshots/VolumeService.h"

namespace quillmark {

void sweepTemporaryDirectories(const Platform& platform) {
  constexpr const char* name = ".quillmark-tmp";
  VolumeService volumes(platform.dispatch, platform.disks, platform.snapshots, platform.processes,
                        platform.propertyLists, platform.paths);
  const SafeFS files(platform.fileWork, platform.random, platform.process);
  for (const APFSVolume& volume : volumes.listVolumes()) {
    if (!volume.mountPath) continue;
    try {
      const SafeFS::Directory root = files.openDirectory(*volume.mountPath);
      if (files.lstatChild(name, root)) files.removeTree(name, root);
    } catch (const Error&) {
      // The next start tries again.
    }
  }
}

}  // namespace quillmark
