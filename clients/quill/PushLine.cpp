#include "quill/PushLine.h"

#include <fmt/format.h>

#include <functional>
#include <string_view>

#include "base/Text.h"
#include "journal/HelperNotification.h"
#include "scheduling/PeopleText.h"
#include "scheduling/VolumeFreeSpaceState.h"
#include "wire/Json.h"
#include "wire/JsonText.h"

namespace quillmark::cli {
namespace {

namespace json = boost::json;

// The arguments of a push by their place. Throws for one that isn't there or is of another type.
class Arguments {
 public:
  explicit Arguments(const json::value& params) : params_(params.as_array()) {}

  [[nodiscard]] std::string text(std::size_t at) const { return std::string(params_.at(at).as_string()); }
  [[nodiscard]] std::string number(std::size_t at) const { return json::serialize(params_.at(at)); }
  [[nodiscard]] std::string payload(std::size_t at) const { return json::serialize(params_.at(at)); }
  [[nodiscard]] bool holds(std::size_t at) const { return at < params_.size() && !params_.at(at).is_null(); }
  [[nodiscard]] std::size_t count(std::size_t at) const { return params_.at(at).as_array().size(); }

 private:
  const json::array& params_;
};

PushLine freeSpace(const Arguments& arguments) {
  std::vector<std::string> volumes;
  for (const auto& state : decodeJson<std::vector<VolumeFreeSpaceState>>(arguments.payload(0))) {
    volumes.push_back(fmt::format("{} {}", state.volumeUUID, fileSizeText(state.freeBytes)));
  }
  return {"free-space", "", join(volumes, ", ")};
}

PushLine scheduled(const Arguments& arguments) {
  const std::string cadence = arguments.text(1);
  return {"schedule", arguments.text(0),
          fmt::format("{}{}: {}", arguments.text(2), cadence.empty() ? "" : " " + cadence, arguments.text(3))};
}

PushLine indexed(const Arguments& arguments) {
  if (arguments.text(2) == "done") return {"index", arguments.text(0), "done"};
  return {"index", arguments.text(0),
          fmt::format("{} of {}: {} files", arguments.text(2), arguments.number(1), arguments.number(3))};
}

PushLine measured(const Arguments& arguments) {
  return {"sizes", arguments.text(0), counted(arguments.count(1), "snapshot")};
}

PushLine alarmed(const Arguments& arguments) {
  std::string detail =
      fmt::format("{} changes in {} s below {}", arguments.number(3), arguments.number(4), arguments.text(2));
  if (arguments.holds(5)) detail += ", held by " + arguments.text(5);
  if (arguments.holds(6)) detail += ", no snapshot: " + arguments.text(6);
  return {"alarm", arguments.text(0), detail};
}

PushLine changed(const Arguments& arguments) { return {"snapshots", arguments.text(0), "changed"}; }

PushLine notified(const Arguments& arguments) {
  const auto notice = decodeJson<HelperNotification>(arguments.payload(0));
  return {"notice", notice.volumeUUID.value_or(""), notice.title + ": " + notice.message};
}

constexpr std::string_view indexProgress = "indexProgressWithVolumeUUID:snapshotXID:phase:filesScanned:";

struct Form {
  std::string_view selector;
  PushLine (*lineOf)(const Arguments&);
};
constexpr Form forms[] = {
    {"freeSpaceUpdateWithJsonStates:", freeSpace},
    {"scheduleEventWithVolumeUUID:cadenceRaw:eventRaw:message:", scheduled},
    {indexProgress, indexed},
    {"snapshotSizesUpdateWithVolumeUUID:jsonSizes:", measured},
    {"monitorAlarmWithVolumeUUID:volumeName:rootPath:eventCount:windowSeconds:snapshotName:snapshotError:", alarmed},
    {"snapshotsChangedWithVolumeUUID:", changed},
    {"notificationPostedWithJson:", notified},
};

}  // namespace

PushLine lineOf(const RpcIncoming& push) {
  try {
    const ParsedJson params(push.params);
    for (const Form& form : forms) {
      if (form.selector == push.selector) return form.lineOf(Arguments(params.value()));
    }
  } catch (const std::exception&) {
    // Another release's, or damaged: shown as it came.
  }
  return {push.selector, "", push.params};
}

std::optional<IndexPush> indexPushIn(const RpcIncoming& push) {
  if (push.selector != indexProgress) return std::nullopt;
  try {
    const ParsedJson params(push.params);
    const json::array& arguments = params.value().as_array();
    return IndexPush{std::string(arguments.at(0).as_string()), Xid{arguments.at(1).to_number<std::uint64_t>()},
                     std::string(arguments.at(2).as_string()), arguments.at(3).to_number<std::int64_t>()};
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace quillmark::cli
