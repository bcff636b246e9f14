// What was asked for on the command line.
// Threads: pure.
// Errors:  wrongUse, with the place of the fitting help.
#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

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
};
struct DeleteRequest {
  std::optional<std::string> volume;
  std::vector<std::string> snapshots;
  bool force = false;
};
struct MountRequest {
  std::optional<std::string> volume;
  std::string snapshot;
};
struct UnmountRequest {
  std::optional<std::string> volume;
  std::string snapshotOrPath;
};
struct HealthRequest {};
struct VersionRequest {};
struct CallRequest {
  std::string selector;
  std::vector<std::string> arguments;  // each JSON text
};
using Request = std::variant<VolumesRequest, ListRequest, CreateRequest, DeleteRequest, MountRequest, UnmountRequest,
                             HealthRequest, VersionRequest, CallRequest>;

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
