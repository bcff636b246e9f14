#include "quill/LogFilter.h"
#include "quill/LogPrinter.h"
#include "quill/LogWalk.h"

namespace quillmark::cli {
namespace {

struct ActivityLogOfHelper {
  using Record = HelperEvent;
  using Request = LogRequest;
  using Filter = LogFilter;
  using Printer = LogPrinter;
  static constexpr std::string_view name = "The activity log";
  static JSONLinesDescription description(const HostPaths& paths) { return activityLogDescription(paths); }
  static bool wantsAll(const LogRequest& request) {
    return request.kinds.empty() && !request.volume && !request.since && !request.failed;
  }
};

struct NotificationLogOfHelper {
  using Record = HelperNotification;
  using Request = NoticesRequest;
  using Filter = NoticeFilter;
  using Printer = NoticePrinter;
  static constexpr std::string_view name = "The notification log";
  static JSONLinesDescription description(const HostPaths& paths) { return notificationLogDescription(paths); }
  static bool wantsAll(const NoticesRequest& request) { return !request.volume && !request.since && !request.critical; }
};

}  // namespace

int run(CommandContext& context, const LogRequest& request) {
  return LogWalk<ActivityLogOfHelper>(context, request).run();
}

int run(CommandContext& context, const NoticesRequest& request) {
  return LogWalk<NotificationLogOfHelper>(context, request).run();
}

}  // namespace quillmark::cli
