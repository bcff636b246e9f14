#include "scheduling/DiskEventHandler.h"

#include "base/HelperLog.h"
#include "base/Text.h"
#include "platform/dispatch.h"
#include "snapshots/MountNames.h"

namespace quillmark {

DiskEventHandler::DiskEventHandler(const SchedulerServices& services) : services_(services), log_(services.dispatch) {}

bool DiskEventHandler::isSnapshotMountEvent(const DiskEvent& event) const {
  if (!event.volumePath) return false;
  const std::string& path = *event.volumePath;
  const std::string& root = services_.paths.userMountRoot;
  if (path.starts_with(services_.paths.privateMountRoot + "/") ||
      (path.starts_with(root + "/") && path.find("@snap-") != std::string::npos) ||
      path.starts_with(root + "/com.apple.TimeMachine.localsnapshots/") || path.starts_with(root + "/.timemachine/")) {
    return true;
  }
  const bool isAPFS = event.volumeKind && equalsIgnoringAsciiCase(*event.volumeKind, "apfs");
  return isAPFS && isSnapshotMount(services_.calls, path);
}

bool DiskEventHandler::handle(const DiskEvent& event) {
  if (event.kind == DiskEvent::Kind::servedElsewhere) {
    if (services_.foreignAppeared) services_.foreignAppeared(event.volumePath.value_or(""));
    return false;
  }
  if (event.kind != DiskEvent::Kind::disappeared && isSnapshotMountEvent(event)) return false;
  if (services_.invalidateVolumeList) services_.invalidateVolumeList();
  if (const auto line = log_.line(event, services_.dispatch.clock().now())) services_.log.info(*line);
  if (event.kind == DiskEvent::Kind::appeared && services_.volumeAppeared) {
    services_.volumeAppeared(event.volumePath.value_or(""));
  }
  return true;
}

}  // namespace quillmark
