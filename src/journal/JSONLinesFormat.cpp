#include "journal/JSONLinesFormat.h"

#include "platform/HostPaths.h"
#include "wire/RecordCoding.h"

namespace quillmark {

bool JSONLinesDescription::isArchive(std::string_view fileName) const {
  return fileName != currentFileName && fileName.starts_with(archivePrefix) && fileName.ends_with(archiveSuffix);
}

JSONLinesDescription activityLogDescription(const HostPaths& paths) {
  return {.directoryPath = paths.sharedDirectory,
          .currentFileName = "activity.log",
          .archivePrefix = "activity-",
          .archiveSuffix = ".log",
          .rotationBytes = std::uint64_t{4} << 20,
          .retainedArchiveCount = 8,
          .logCategory = "activity",
          .name = "activity-log"};
}

JSONLinesDescription notificationLogDescription(const HostPaths& paths) {
  return {.directoryPath = paths.sharedDirectory,
          .currentFileName = "notifications.log",
          .archivePrefix = "notifications-",
          .archiveSuffix = ".log",
          .rotationBytes = std::uint64_t{1} << 20,
          .retainedArchiveCount = 2,
          .logCategory = "notification-log",
          .name = "notification-log"};
}

template <>
struct Description<JSONLinesCursor> {
  static void fields(auto& field, auto& cursor) {
    field("deviceID", cursor.deviceID);
    field("inode", cursor.inode);
    field("offset", cursor.offset);
  }
};

}  // namespace quillmark

QUILLMARK_RECORD(quillmark::JSONLinesCursor)
