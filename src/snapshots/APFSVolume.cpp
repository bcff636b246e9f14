#include "snapshots/APFSVolume.h"

#include "wire/RecordCoding.h"

namespace quillmark {

template <>
struct Description<APFSVolume> {
  static void fields(auto& field, auto& volume) {
    field("id", volume.id);
    field("name", volume.name);
    field("bsdName", volume.bsdName);
    field("mountPath", volume.mountPath);
    field("role", volume.role);
    field("isAPFSData", volume.isAPFSData);
    field("isProtected", volume.isProtected);
    field("totalBytes", volume.totalBytes);
    field("usedBytes", volume.usedBytes);
    field("availableBytes", volume.availableBytes);
    field("deviceName", volume.deviceName);
    field("connectionBus", volume.connectionBus);
    field("isInternal", volume.isInternal);
    field("volumeType", volume.volumeType);
    field("containerVolumeCount", volume.containerVolumeCount);
    field("ownUsedBytes", volume.ownUsedBytes);
    field("otherVolumesUsedBytes", volume.otherVolumesUsedBytes);
    field("isEncrypted", volume.isEncrypted);
    field("isFileVault", volume.isFileVault);
    field("isLocked", volume.isLocked);
  }
};

}  // namespace quillmark

QUILLMARK_RECORD(quillmark::APFSVolume)
