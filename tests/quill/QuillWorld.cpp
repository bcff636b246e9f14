#include "QuillWorld.h"

#include <fmt/format.h>

#include <cerrno>

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
  return lines;
}

void HelperEnd::send(std::string_view line) {
  for (std::string& text : helper_.reply(std::string(line))) waiting_.push_back(std::move(text));
}

std::string HelperEnd::receive(std::chrono::nanoseconds) {
  if (waiting_.empty())
    throw Error(std::string(posixErrorDomain), ETIMEDOUT, "The Quillmark helper did not answer in time.");
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
}

Result QuillWorld::run(const std::vector<std::string>& arguments) {
  const HostPaths paths;
  TextInMemory sink;
  const auto connect = [&](const std::optional<std::string>&) -> std::unique_ptr<ClientChannel> {
    if (helper.unreachable) throw Error(*helper.unreachable);
    return std::make_unique<HelperEnd>(helper);
  };
  World world{sink, terminal, simulation.clock(), volumes, paths, connect, [](const std::string&) { return nullptr; }};
  const int exitCode = runQuill(arguments, world);
  return {exitCode, sink.output, sink.errors};
}

}  // namespace quillmark::cli
