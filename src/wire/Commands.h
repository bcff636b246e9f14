// Every command as a type: its arguments in order, and its row of the command table.
//
//   DeleteSnapshot call{.name = name, .volumeUUID = uuid, .force = false};
//   const ArgumentValues values = argumentValues(call);           // the client's way
//   const auto same = commandFrom<DeleteSnapshot>(values);        // the service's way
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <vector>

#include "wire/CommandTable.h"

namespace quillmark {

// An argument: its name in the table and the member that holds it.
template <class Command, class Type>
struct Field {
  using type = Type;
  constexpr Field(std::string_view fieldName, Type Command::*fieldMember) : name(fieldName), member(fieldMember) {}
  std::string_view name;
  Type Command::*member;
};

// The part of a row that isn't told by the arguments.
struct CommandTraits {
  std::string_view selector;
  ReplyKind reply;
  std::string_view replyRecord = {};
  CommandQueue queue = CommandQueue::delivery;
  bool drains = false;
  CommandProtocols protocols = CommandProtocols::helper;
  std::string_view entryLine = {};
};

struct HelperVersion {
  static constexpr CommandTraits traits{.selector = "helperVersionWithReply:",
                                        .reply = ReplyKind::string,
                                        .protocols = CommandProtocols::helperAndFinder};
  static constexpr auto fields() { return std::tuple(); }
};

struct HelperGitCommit {
  static constexpr CommandTraits traits{.selector = "helperGitCommitWithReply:", .reply = ReplyKind::string};
  static constexpr auto fields() { return std::tuple(); }
};

struct ProtocolVersion {
  static constexpr CommandTraits traits{.selector = "protocolVersionWithReply:",
                                        .reply = ReplyKind::int64,
                                        .protocols = CommandProtocols::helperAndFinder};
  static constexpr auto fields() { return std::tuple(); }
};

struct HelperHealth {
  static constexpr CommandTraits traits{
      .selector = "helperHealthWithReply:", .reply = ReplyKind::data, .replyRecord = "HelperHealthStatus"};
  static constexpr auto fields() { return std::tuple(); }
};

struct GetSchedule {
  static constexpr CommandTraits traits{.selector = "getScheduleForVolume:reply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "SchedulePolicy",
                                        .entryLine = "XPC getSchedule(volume={volumeUUID})"};
  std::string volumeUUID;
  static constexpr auto fields() { return std::tuple(Field("volumeUUID", &GetSchedule::volumeUUID)); }
};

struct SetSchedule {
  static constexpr CommandTraits traits{.selector = "setScheduleForVolume:policyJSON:reply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "SchedulePolicy",
                                        .entryLine = "XPC setSchedule(volume={volumeUUID}, {policy.bytes} bytes)"};
  std::string volumeUUID;
  JsonArgument policy;
  static constexpr auto fields() {
    return std::tuple(Field("volumeUUID", &SetSchedule::volumeUUID), Field("policy", &SetSchedule::policy));
  }
};

struct ListSchedules {
  static constexpr CommandTraits traits{.selector = "listSchedulesWithReply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "object of SchedulePolicy by volume"};
  static constexpr auto fields() { return std::tuple(); }
};

struct GetFreeSpaceStates {
  static constexpr CommandTraits traits{.selector = "getFreeSpaceStatesWithReply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "array of VolumeFreeSpaceState"};
  static constexpr auto fields() { return std::tuple(); }
};

struct GetHelperSettings {
  static constexpr CommandTraits traits{.selector = "getHelperSettingsWithReply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "HelperSettings",
                                        .protocols = CommandProtocols::helperAndFinder};
  static constexpr auto fields() { return std::tuple(); }
};

struct SetHelperSettings {
  static constexpr CommandTraits traits{.selector = "setHelperSettings:reply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "HelperSettings",
                                        .entryLine = "XPC setHelperSettings({settings.bytes} bytes)"};
  JsonArgument settings;
  static constexpr auto fields() { return std::tuple(Field("settings", &SetHelperSettings::settings)); }
};

struct ForwardNotification {
  static constexpr CommandTraits traits{.selector = "forwardNotification:reply:", .reply = ReplyKind::error};
  JsonArgument notification;
  static constexpr auto fields() { return std::tuple(Field("notification", &ForwardNotification::notification)); }
};

struct ListSnapshots {
  static constexpr CommandTraits traits{
      .selector = "listSnapshotsOnVolume:includeSizes:forceSizeRefresh:reply:",
      .reply = ReplyKind::data,
      .replyRecord = "array of SnapshotRecord",
      .queue = CommandQueue::query,
      .entryLine = "XPC listSnapshots(volume={volumeUUID}{includeSizes?, sizes}{forceSizeRefresh?, force})"};
  std::string volumeUUID;
  bool includeSizes = false;
  bool forceSizeRefresh = false;
  static constexpr auto fields() {
    return std::tuple(Field("volumeUUID", &ListSnapshots::volumeUUID),
                      Field("includeSizes", &ListSnapshots::includeSizes),
                      Field("forceSizeRefresh", &ListSnapshots::forceSizeRefresh));
  }
};

struct IndexedXIDs {
  static constexpr CommandTraits traits{.selector = "indexedXIDsOnVolume:reply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "array of unsigned 64-bit",
                                        .queue = CommandQueue::query,
                                        .protocols = CommandProtocols::helperAndFinder};
  std::string volumeUUID;
  static constexpr auto fields() { return std::tuple(Field("volumeUUID", &IndexedXIDs::volumeUUID)); }
};

// Two directories, or two files, of this machine.
struct CompareLocalPaths {
  static constexpr CommandTraits traits{
      .selector = "compareLocalPathsWithPathA:pathB:applyExclusions:subtreePath:reply:",
      .reply = ReplyKind::data,
      .replyRecord = "DiffResult",
      .queue = CommandQueue::query};
  std::string pathA;
  std::string pathB;
  bool applyExclusions = false;
  std::optional<std::string> subtreePath;  // where the exclusions shall see the trees' roots
  static constexpr auto fields() {
    return std::tuple(Field("pathA", &CompareLocalPaths::pathA), Field("pathB", &CompareLocalPaths::pathB),
                      Field("applyExclusions", &CompareLocalPaths::applyExclusions),
                      Field("subtreePath", &CompareLocalPaths::subtreePath));
  }
};

struct CompareSubtree {
  static constexpr CommandTraits traits{.selector = "compareSubtreeOnVolume:path:xidA:xidB:reply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "DiffResult",
                                        .queue = CommandQueue::query};
  std::string volumeUUID;
  std::string path;
  std::uint64_t xidA = 0;
  std::uint64_t xidB = 0;
  static constexpr auto fields() {
    return std::tuple(Field("volumeUUID", &CompareSubtree::volumeUUID), Field("path", &CompareSubtree::path),
                      Field("xidA", &CompareSubtree::xidA), Field("xidB", &CompareSubtree::xidB));
  }
};

struct CreateSnapshot {
  static constexpr CommandTraits traits{.selector = "createSnapshotOnVolume:label:reply:",
                                        .reply = ReplyKind::string,
                                        .queue = CommandQueue::mutation,
                                        .drains = true,
                                        .entryLine = "XPC createSnapshot(volume={volumeUUID}, label={label})"};
  std::string volumeUUID;
  std::string label;
  static constexpr auto fields() {
    return std::tuple(Field("volumeUUID", &CreateSnapshot::volumeUUID), Field("label", &CreateSnapshot::label));
  }
};

struct DeleteSnapshot {
  static constexpr CommandTraits traits{
      .selector = "deleteSnapshotWithName:onVolume:force:reply:",
      .reply = ReplyKind::error,
      .queue = CommandQueue::mutation,
      .drains = true,
      .entryLine = "XPC deleteSnapshot(name={name}, volume={volumeUUID}, force={force})"};
  std::string name;
  std::string volumeUUID;
  bool force = false;
  static constexpr auto fields() {
    return std::tuple(Field("name", &DeleteSnapshot::name), Field("volumeUUID", &DeleteSnapshot::volumeUUID),
                      Field("force", &DeleteSnapshot::force));
  }
};

struct MountSnapshot {
  static constexpr CommandTraits traits{.selector = "mountSnapshotWithName:onVolume:xid:reply:",
                                        .reply = ReplyKind::string,
                                        .queue = CommandQueue::mount,
                                        .drains = true,
                                        .entryLine = "XPC mountSnapshot(name={name}, volume={volumeUUID}, xid={xid})"};
  std::string name;
  std::string volumeUUID;
  std::uint64_t xid = 0;
  static constexpr auto fields() {
    return std::tuple(Field("name", &MountSnapshot::name), Field("volumeUUID", &MountSnapshot::volumeUUID),
                      Field("xid", &MountSnapshot::xid));
  }
};

struct UnmountSnapshot {
  static constexpr CommandTraits traits{.selector = "unmountSnapshotAtPath:reply:",
                                        .reply = ReplyKind::error,
                                        .queue = CommandQueue::mount,
                                        .drains = true,
                                        .entryLine = "XPC unmountSnapshot(path={path})"};
  std::string path;
  static constexpr auto fields() { return std::tuple(Field("path", &UnmountSnapshot::path)); }
};

struct RequestQuit {
  static constexpr CommandTraits traits{
      .selector = "requestQuitWithReply:", .reply = ReplyKind::boolean, .entryLine = "XPC requestQuit()"};
  static constexpr auto fields() { return std::tuple(); }
};

struct GetAuditLogHealth {
  static constexpr CommandTraits traits{
      .selector = "auditLogHealthWithReply:", .reply = ReplyKind::data, .replyRecord = "AuditLogHealth"};
  static constexpr auto fields() { return std::tuple(); }
};

struct CreateSafetySnapshot {
  static constexpr CommandTraits traits{.selector = "createSafetySnapshotOnVolume:label:reply:",
                                        .reply = ReplyKind::string,
                                        .queue = CommandQueue::mutation,
                                        .drains = true,
                                        .entryLine = "XPC createSafetySnapshot(volume={volumeUUID}, label={label})"};
  std::string volumeUUID;
  std::string label;
  static constexpr auto fields() {
    return std::tuple(Field("volumeUUID", &CreateSafetySnapshot::volumeUUID),
                      Field("label", &CreateSafetySnapshot::label));
  }
};

// Logs on entry once its specs are decoded, as MountSnapshots does.
struct DeleteSnapshots {
  static constexpr CommandTraits traits{.selector = "deleteSnapshotsWithSpecsJSON:onVolume:reply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "array of SnapshotNameOutcome",
                                        .queue = CommandQueue::mutation,
                                        .drains = true};
  JsonArgument specs;
  std::string volumeUUID;
  static constexpr auto fields() {
    return std::tuple(Field("specs", &DeleteSnapshots::specs), Field("volumeUUID", &DeleteSnapshots::volumeUUID));
  }
};

struct SetProtected {
  static constexpr CommandTraits traits{
      .selector = "setProtectedWithName:onVolume:isProtected:reply:",
      .reply = ReplyKind::error,
      .queue = CommandQueue::mutation,
      .entryLine = "XPC setProtected(name={name}, volume={volumeUUID}, isProtected={isProtected})"};
  std::string name;
  std::string volumeUUID;
  bool isProtected = false;
  static constexpr auto fields() {
    return std::tuple(Field("name", &SetProtected::name), Field("volumeUUID", &SetProtected::volumeUUID),
                      Field("isProtected", &SetProtected::isProtected));
  }
};

// An empty tag removes it.
struct SetSnapshotTag {
  static constexpr CommandTraits traits{
      .selector = "setSnapshotTagWithName:onVolume:tag:reply:",
      .reply = ReplyKind::error,
      .queue = CommandQueue::mutation,
      .entryLine = "XPC setSnapshotTag(name={name}, volume={volumeUUID}, tagBytes={tag.bytes})"};
  std::string name;
  std::string volumeUUID;
  std::string tag;
  static constexpr auto fields() {
    return std::tuple(Field("name", &SetSnapshotTag::name), Field("volumeUUID", &SetSnapshotTag::volumeUUID),
                      Field("tag", &SetSnapshotTag::tag));
  }
};

struct MountSnapshots {
  static constexpr CommandTraits traits{.selector = "mountSnapshotsWithSpecsJSON:reply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "array of SnapshotMountOutcome",
                                        .queue = CommandQueue::mount,
                                        .drains = true};
  JsonArgument specs;
  static constexpr auto fields() { return std::tuple(Field("specs", &MountSnapshots::specs)); }
};

struct UnmountSnapshots {
  static constexpr CommandTraits traits{.selector = "unmountSnapshotsWithPaths:reply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "array of SnapshotPathOutcome",
                                        .queue = CommandQueue::mount,
                                        .drains = true,
                                        .entryLine = "XPC unmountSnapshots(count={paths})"};
  std::vector<std::string> paths;
  static constexpr auto fields() { return std::tuple(Field("paths", &UnmountSnapshots::paths)); }
};

struct PinSnapshotMounts {
  static constexpr CommandTraits traits{.selector = "pinSnapshotMountsWithPaths:reason:token:reply:",
                                        .reply = ReplyKind::string,
                                        .queue = CommandQueue::mount};
  std::vector<std::string> paths;
  std::string reason;
  std::optional<std::string> token;
  static constexpr auto fields() {
    return std::tuple(Field("paths", &PinSnapshotMounts::paths), Field("reason", &PinSnapshotMounts::reason),
                      Field("token", &PinSnapshotMounts::token));
  }
};

struct UnpinSnapshotMounts {
  static constexpr CommandTraits traits{
      .selector = "unpinSnapshotMountsWithToken:reply:", .reply = ReplyKind::error, .queue = CommandQueue::mount};
  std::string token;
  static constexpr auto fields() { return std::tuple(Field("token", &UnpinSnapshotMounts::token)); }
};

struct ListUnservedSubvolumes {
  static constexpr CommandTraits traits{.selector = "listUnservedSubvolumesWithReply:",
                                        .reply = ReplyKind::data,
                                        .replyRecord = "array of UnservedSubvolumes",
                                        .queue = CommandQueue::query};
  static constexpr auto fields() { return std::tuple(); }
};

// The reply is the path of a file that holds the DiffResult (wire/DiffResult.h), for the asking user's eyes alone.
struct DiffSnapshots {
  static constexpr CommandTraits traits{
      .selector = "diffSnapshotsOnVolume:xidA:nameA:xidB:nameB:includeTree:ignoreExclusions:reply:",
      .reply = ReplyKind::string,
      .queue = CommandQueue::history,
      .drains = true,
      .entryLine = "XPC diffSnapshots(volume={volumeUUID}, {xidA} ↔ {xidB}{ignoreExclusions?, FULL SCAN})"};
  std::string volumeUUID;
  std::uint64_t xidA = 0;
  std::string nameA;
  std::uint64_t xidB = 0;
  std::string nameB;
  bool includeTree = false;
  bool ignoreExclusions = false;
  static constexpr auto fields() {
    return std::tuple(Field("volumeUUID", &DiffSnapshots::volumeUUID), Field("xidA", &DiffSnapshots::xidA),
                      Field("nameA", &DiffSnapshots::nameA), Field("xidB", &DiffSnapshots::xidB),
                      Field("nameB", &DiffSnapshots::nameB), Field("includeTree", &DiffSnapshots::includeTree),
                      Field("ignoreExclusions", &DiffSnapshots::ignoreExclusions));
  }
};

struct ReindexVolume {
  static constexpr CommandTraits traits{.selector = "reindexVolumeWithVolumeUUID:reply:",
                                        .reply = ReplyKind::error,
                                        .queue = CommandQueue::history,
                                        .drains = true,
                                        .entryLine = "XPC reindexVolume({volumeUUID})"};
  std::string volumeUUID;
  static constexpr auto fields() { return std::tuple(Field("volumeUUID", &ReindexVolume::volumeUUID)); }
};

struct ReindexAllVolumes {
  static constexpr CommandTraits traits{.selector = "reindexAllVolumesWithReply:",
                                        .reply = ReplyKind::error,
                                        .queue = CommandQueue::history,
                                        .drains = true,
                                        .entryLine = "XPC reindexAllVolumes()"};
  static constexpr auto fields() { return std::tuple(); }
};

struct ReindexSnapshot {
  static constexpr CommandTraits traits{.selector = "reindexSnapshotOnVolume:xid:reply:",
                                        .reply = ReplyKind::error,
                                        .queue = CommandQueue::history,
                                        .drains = true,
                                        .entryLine = "XPC reindexSnapshot(volume={volumeUUID}, xid={xid})"};
  std::string volumeUUID;
  std::uint64_t xid = 0;
  static constexpr auto fields() {
    return std::tuple(Field("volumeUUID", &ReindexSnapshot::volumeUUID), Field("xid", &ReindexSnapshot::xid));
  }
};

// In the order of the documents.
using AllCommands =
    std::tuple<HelperVersion, HelperGitCommit, RequestQuit, ProtocolVersion, GetAuditLogHealth, HelperHealth,
               GetSchedule, SetSchedule, ListSchedules, GetFreeSpaceStates, GetHelperSettings, SetHelperSettings,
               ForwardNotification, ListSnapshots, IndexedXIDs, CompareLocalPaths, CompareSubtree, CreateSnapshot,
               CreateSafetySnapshot, DeleteSnapshot, DeleteSnapshots, SetProtected, SetSnapshotTag, MountSnapshot,
               MountSnapshots, UnmountSnapshot, UnmountSnapshots, PinSnapshotMounts, UnpinSnapshotMounts, DiffSnapshots,
               ReindexVolume, ReindexAllVolumes, ReindexSnapshot, ListUnservedSubvolumes>;

template <class Type>
constexpr ArgumentType argumentType() {
  if constexpr (std::is_same_v<Type, std::string>) return ArgumentType::string;
  if constexpr (std::is_same_v<Type, std::optional<std::string>>) return ArgumentType::optionalString;
  if constexpr (std::is_same_v<Type, bool>) return ArgumentType::boolean;
  if constexpr (std::is_same_v<Type, std::uint64_t>) return ArgumentType::uint64;
  if constexpr (std::is_same_v<Type, std::int64_t>) return ArgumentType::int64;
  if constexpr (std::is_same_v<Type, std::vector<std::string>>) return ArgumentType::stringArray;
  if constexpr (std::is_same_v<Type, JsonArgument>) return ArgumentType::json;
}

template <class Command>
[[nodiscard]] ArgumentValues argumentValues(const Command& command) {
  return std::apply(
      [&](const auto&... field) {
        ArgumentValues values;
        (values.push_back(ArgumentValue(command.*field.member)), ...);
        return values;
      },
      Command::fields());
}

// Needs values of the types that the command's row names, as decodeCall gives them.
template <class Command>
[[nodiscard]] Command commandFrom(const ArgumentValues& values) {
  Command command;
  std::size_t at = 0;
  std::apply(
      [&](const auto&... field) {
        ((command.*field.member = std::get<typename std::remove_cvref_t<decltype(field)>::type>(values.at(at++))), ...);
      },
      Command::fields());
  return command;
}

}  // namespace quillmark
