#include "QuillWorld.h"

#include <fmt/format.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "base/Text.h"
#include "wire/Json.h"
#include "wire/QuillmarkXPC.h"

namespace quillmark::cli {

APFSVolume volumeNamed(const std::string& name, const std::string& uuid, const std::string& bsdName,
                       const std::string& mountPath) {
  APFSVolume volume;
  volume.id = uuid;
  volume.name = name;
  volume.bsdName = bsdName;
  volume.mountPath = mountPath;
  volume.connectionBus = "NVMe";
  volume.totalBytes = std::uint64_t{64} << 30;
  volume.usedBytes = 1000;
  volume.availableBytes = volume.totalBytes - volume.usedBytes;
  return volume;
}

SnapshotRecord snapshotNamed(const std::string& name, std::uint64_t xid) {
  return {.name = name, .xid = Xid{xid}, .createdAt = Date::from1970(1'772'355'600)};
}

std::string manualName(const std::string& day, const std::string& label) {
  return "com.harrowfern.Quillmark.manual." + day + "T00-00-00Z" + (label.empty() ? "" : "." + label);
}

std::vector<std::string> ScriptedHelper::reply(const std::string& line) {
  const auto decoded = decodeCall(line);
  std::vector<std::string> lines = pushes;
  if (const auto* refusal = std::get_if<RpcRefusal>(&decoded)) {
    lines.push_back(encodeRefusal(*refusal));
    return lines;
  }
  const auto& call = std::get<RpcCall>(decoded);
  const std::string selector(call.command->selector);
  if (selector != ProtocolVersion::traits.selector) calls.push_back(selector);
  if (callsUntilGone == 0)
    throw Error(std::string(posixErrorDomain), EPIPE, "The Quillmark helper closed the connection.");
  --callsUntilGone;
  RpcReply reply;
  try {
    reply = answers.at(selector)(call);
  } catch (const Error& error) {
    reply.error = error;
  }
  lines.push_back(encodeReply(*call.id, reply));
  lines.insert(lines.end(), later.begin(), later.end());
  return lines;
}

void HelperEnd::send(std::string_view line) {
  for (std::string& text : helper_.reply(std::string(line))) waiting_.push_back(std::move(text));
}

std::string HelperEnd::receive(std::chrono::nanoseconds timeout) {
  if (waiting_.empty() && !helper_.later.empty())
    throw Error(std::string(posixErrorDomain), EPIPE, "The Quillmark helper closed the connection.");
  if (waiting_.empty()) {
    helper_.whileSilent(timeout);
    throw Error(std::string(posixErrorDomain), ETIMEDOUT, "The Quillmark helper did not answer in time.");
  }
  std::string line = std::move(waiting_.front());
  waiting_.erase(waiting_.begin());
  return line;
}

QuillWorld::QuillWorld() {
  volumes.volumes = {volumeNamed("Data", dataUUID, "disk1s1", "/mnt/data")};
  snapshots = {snapshotNamed(manualName("2026-03-02", "second"), 200),
               snapshotNamed(manualName("2026-03-01", "first"), 100)};
  const auto text = [](std::string value) { return RpcReply{jsonString(value), {}}; };
  helper.on<ProtocolVersion>([](auto&) { return RpcReply{std::to_string(QuillmarkXPC::protocolVersion), {}}; });
  helper.on<HelperVersion>([=](auto&) { return text("9.8.7"); });
  helper.on<HelperGitCommit>([=](auto&) { return text("abcdef"); });
  helper.on<ListSnapshots>([&](auto&) { return RpcReply{encodeJson(snapshots), {}}; });
  helper.on<CreateSnapshot>([=](const CreateSnapshot& call) { return text(manualName("2026-03-03", call.label)); });
  helper.on<DeleteSnapshot>([](auto&) { return RpcReply{}; });
  helper.on<MountSnapshot>(
      [=](const MountSnapshot& call) { return text(fmt::format("/Volumes/Data-x@snap-{}", call.xid)); });
  helper.on<UnmountSnapshot>([](auto&) { return RpcReply{}; });
  helper.on<CreateSafetySnapshot>([=](const CreateSafetySnapshot& call) { return text("safety of " + call.label); });
  helper.on<SetProtected>([](auto&) { return RpcReply{}; });
  helper.on<SetSnapshotTag>([](auto&) { return RpcReply{}; });
  helper.on<RequestQuit>([](auto&) { return RpcReply{"true", {}}; });
  helper.on<HelperHealth>([&](auto&) { return RpcReply{encodeJson(health), {}}; });
  helper.on<GetAuditLogHealth>([](auto&) { return RpcReply{encodeJson(AuditLogHealth()), {}}; });
  serveBatches();
  serveSchedules();
  paths.sharedDirectory = posix.root() + "/shared";
  helper.whileSilent = [&](std::chrono::nanoseconds span) { simulation.runFor(span); };
}

void QuillWorld::serveBatches() {
  helper.on<DeleteSnapshots>([](const DeleteSnapshots& call) {
    std::vector<SnapshotNameOutcome> outcomes;
    for (const auto& spec : decodeJson<std::vector<SnapshotDeleteSpec>>(call.specs.text))
      outcomes.push_back({spec.name});
    return RpcReply{encodeJson(outcomes), {}};
  });
  helper.on<MountSnapshots>([](const MountSnapshots& call) {
    std::vector<SnapshotMountOutcome> outcomes;
    for (const auto& spec : decodeJson<std::vector<SnapshotMountSpec>>(call.specs.text)) {
      outcomes.push_back({spec.xid, fmt::format("/Volumes/Data-x@snap-{}", spec.xid.value)});
    }
    return RpcReply{encodeJson(outcomes), {}};
  });
  helper.on<UnmountSnapshots>([](const UnmountSnapshots& call) {
    std::vector<SnapshotPathOutcome> outcomes;
    for (const std::string& path : call.paths) outcomes.push_back({path});
    return RpcReply{encodeJson(outcomes), {}};
  });
}

void QuillWorld::serveSchedules() {
  helper.on<ListSchedules>([&](auto&) { return RpcReply{encodeJson(schedules), {}}; });
  helper.on<SetSchedule>([&](const SetSchedule& call) {
    const std::string key = asciiLower(call.volumeUUID);
    const auto found = schedules.find(key);
    const auto previous = found == schedules.end() ? std::nullopt : std::optional(found->second);
    const auto policy = decodeJson<SchedulePolicy>(call.policy.text).normalized();
    schedules[key] = policy.stamped(previous, Date::from1970(1'772'355'600));
    return RpcReply{encodeJson(schedules[key]), {}};
  });
  helper.on<GetHelperSettings>([&](auto&) { return RpcReply{encodeJson(settings), {}}; });
  helper.on<SetHelperSettings>([&](const SetHelperSettings& call) {
    settings = decodeJson<HelperSettings>(call.settings.text).normalized();
    return RpcReply{encodeJson(settings), {}};
  });
  helper.on<ListUnservedSubvolumes>([&](auto&) { return RpcReply{encodeJson(unserved), {}}; });
  helper.on<GetFreeSpaceStates>([&](auto&) { return RpcReply{encodeJson(freeSpace), {}}; });
}

Result QuillWorld::run(const std::vector<std::string>& arguments) {
  TextInMemory sink;
  sink.reads = reads;
  const auto connect = [&](const std::optional<std::string>&) -> std::unique_ptr<ClientChannel> {
    if (helper.unreachable) throw Error(*helper.unreachable);
    return std::make_unique<HelperEnd>(helper);
  };
  const auto busy = [](const std::string&) { return nullptr; };
  World world{sink,
              terminal,
              simulation.clock(),
              volumes,
              paths,
              connect,
              busy,
              posix,
              simulation.random(),
              {},
              whileWaiting,
              [&] { return input; },
              [] {},
              [] {},
              [&] { return admission; },
              [&]() -> std::shared_ptr<void> { return ++timesPaged, nullptr; }};
  if (answer) world.confirm = [&](const std::string& question) { return questions.push_back(question), *answer; };
  const int exitCode = runQuill(arguments, world);
  return {exitCode, sink.output, sink.errors};
}

Result QuillWorld::run(std::vector<std::string> arguments, const std::vector<std::string>& more) {
  arguments.insert(arguments.end(), more.begin(), more.end());
  return run(arguments);
}

void QuillWorld::append(const std::string& file, const std::string& text) const {
  std::filesystem::create_directories(paths.sharedDirectory);
  std::ofstream(paths.sharedDirectory + "/" + file, std::ios::app) << text;
}

}  // namespace quillmark::cli
