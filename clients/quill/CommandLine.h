// What was asked for on the command line.
// Threads: pure.
// Errors:  wrongUse, with the place of the fitting help.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "quill/DiffText.h"

namespace quillmark::cli {

struct VolumesRequest {
  bool full = false;
};
struct ListRequest {
  std::optional<std::string> volume;
  bool full = false;
};
struct CreateRequest {
  std::optional<std::string> volume;
  std::string label;
  bool waitIndex = false;
};
struct DiffRequest {
  std::optional<std::string> volume;
  std::vector<std::string> words;  // two snapshots, or two paths
  bool local = false;              // paths of this machine
  bool fullScan = false;           // what is excluded too
  std::optional<std::string> subtree;
  DiffForm form = DiffForm::rows;
  std::vector<std::string> kinds;  // as typed; none means all
};
enum class IndexAction { status, snapshot, rebuild };
struct IndexRequest {
  std::optional<std::string> volume;
  IndexAction action = IndexAction::status;
  std::string snapshot;  // of the action of that name
  bool all = false;      // of rebuild: every volume
};
struct SafetyRequest {
  std::optional<std::string> volume;
  std::string label;
};
struct DeleteRequest {
  std::optional<std::string> volume;
  std::vector<std::string> snapshots;
  bool force = false;
  bool yes = false;  // asks nobody
};
struct ProtectRequest {
  std::optional<std::string> volume;
  std::vector<std::string> snapshots;
  bool protect = true;
};
struct TagRequest {
  std::optional<std::string> volume;
  std::string snapshot;
  std::optional<std::string> text;  // an empty one takes the tag away; without one it is shown
};
struct MountRequest {
  std::optional<std::string> volume;
  std::vector<std::string> snapshots;
};
struct UnmountRequest {
  std::optional<std::string> volume;
  std::vector<std::string> snapshotsOrPaths;
};
struct LogRequest {
  std::optional<std::string> volume;
  std::vector<std::string> kinds;     // as typed; none means all
  std::optional<std::size_t> lines;   // the last so many
  std::optional<std::string> since;   // as typed
  std::optional<std::string> cursor;  // the file that remembers how far was read
  bool failed = false;                // failures alone
  bool follow = false;
  bool full = false;
};
enum class ScheduleAction { show, set, on, off };
struct ScheduleRequest {
  std::optional<std::string> volume;
  ScheduleAction action = ScheduleAction::show;
  std::vector<std::string> enable, disable;  // cadences, as typed
  std::vector<std::string> keep;             // "hourly=12"
  std::optional<std::string> lowSpace, lowSpaceBytes, protectForeign, tracked;
};
enum class SettingsAction { show, get, set, edit };
struct SettingsRequest {
  SettingsAction action = SettingsAction::show;
  std::string key;                  // of get and set
  std::vector<std::string> values;  // of set
  bool full = false;
};
struct PlanRequest {
  std::optional<std::string> volume;
  bool full = false;
};
struct SpaceRequest {};
struct NoticesRequest {
  std::optional<std::string> volume;
  std::optional<std::size_t> lines;   // the last so many
  std::optional<std::string> since;   // as typed
  std::optional<std::string> cursor;  // the file that remembers how far was read
  bool critical = false;              // critical ones alone
  bool follow = false;
  bool full = false;
};
struct WatchRequest {};
struct HealthRequest {};
struct QuitRequest {};
struct VersionRequest {};
struct CallRequest {
  std::string selector;
  std::vector<std::string> arguments;  // each JSON text
};
using Request = std::variant<VolumesRequest, ListRequest, CreateRequest, SafetyRequest, DeleteRequest, ProtectRequest,
                             TagRequest, MountRequest, UnmountRequest, LogRequest, ScheduleRequest, SettingsRequest,
                             PlanRequest, SpaceRequest, NoticesRequest, WatchRequest, IndexRequest, DiffRequest,
                             HealthRequest, QuitRequest, VersionRequest, CallRequest>;

struct Invocation {
  bool json = false;
  bool color = true;
  std::optional<std::string> socket;  // other than the service's own
  Request request;
};

// A text that was asked for: help, or the version.
struct HelpText {
  std::string text;
};

// Arguments as bytes, without the program's name; names and labels come out as text.
[[nodiscard]] std::variant<Invocation, HelpText> parseCommandLine(const std::vector<std::string>& arguments);
// True when JSON is wanted, also of arguments that can't be understood otherwise.
[[nodiscard]] bool asksForJson(const std::vector<std::string>& arguments);

}  // namespace quillmark::cli
