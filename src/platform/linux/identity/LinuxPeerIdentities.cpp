#include "platform/linux/identity/LinuxPeerIdentities.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

#include "platform/NameText.h"
#include "platform/Transport.h"
#include "platform/linux/identity/CodeRequirement.h"

namespace quillmark::os {
namespace {

std::shared_ptr<LinuxPeerProcess> processOf(const PeerCredentials& peer) {
  return std::dynamic_pointer_cast<LinuxPeerProcess>(peer.process);
}

// What tells one file, in one state, from another.
std::array<std::uint32_t, 8> digestOf(const FileStamp& stamp) {
  std::string text;
  for (const std::uint64_t part :
       {std::uint64_t{stamp.deviceMajor}, std::uint64_t{stamp.deviceMinor}, stamp.inode,
        static_cast<std::uint64_t>(stamp.changedSeconds), std::uint64_t{stamp.changedNanoseconds}}) {
    text += std::to_string(part) + ' ';
  }
  const Digest digest = digestOfText(text);
  std::array<std::uint32_t, 8> words{};
  std::memcpy(words.data(), digest.data(), sizeof words);
  return words;
}

std::vector<std::uint32_t> tokenOf(const PeerCredentials& peer, const FileStamp& program) {
  const auto at = [](AuditTokenWord word) { return static_cast<std::size_t>(word); };
  const std::array<std::uint32_t, 8> digest = digestOf(program);
  std::vector<std::uint32_t> words(auditTokenWords);
  words[at(AuditTokenWord::effectiveUser)] = peer.uid;
  words[at(AuditTokenWord::effectiveGroup)] = peer.gid;
  words[at(AuditTokenWord::process)] = static_cast<std::uint32_t>(peer.pid);
  std::size_t next = 0;
  for (const std::size_t free : {0U, 3U, 4U, 6U, 7U}) words[free] = digest[next++];
  return words;
}

}  // namespace

LinuxPeerIdentities::LinuxPeerIdentities(Dispatch& dispatch, const PeerIdentityOptions& options)
    : threads_(dispatch, options.threads), groups_(threads_),
      programs_(std::make_shared<ProgramChecks>(options.anchor, options.owner)) {}

bool LinuxPeerIdentities::admits(const PeerCredentials& peer) {
  if (peer.uid == 0) return true;
  const ClientGroupIds groups = groups_.current();
  return groups.users && groups.programs && peer.gid == *groups.programs &&
         std::find(peer.groups.begin(), peer.groups.end(), *groups.users) != peer.groups.end();
}

std::optional<std::vector<std::uint32_t>> LinuxPeerIdentities::auditToken(const PeerCredentials& peer) {
  const auto process = processOf(peer);
  if (!process) return std::nullopt;
  auto directory = threads_.run<LinuxPeerProcess::Directory>([process] { return process->look(); });
  if (!directory) return std::nullopt;
  const FileStamp program = directory->program;
  // Here and not on that thread: one that was given up must not make a program count later.
  process->hold(std::move(*directory));
  return tokenOf(peer, program);
}

std::optional<ProgramIdentity> LinuxPeerIdentities::programOf(const PeerCredentials& peer) {
  const auto process = processOf(peer);
  if (!process) return std::nullopt;
  return threads_.run<ProgramIdentity>([programs = programs_, process] { return programs->identify(*process); });
}

PeerIdentity LinuxPeerIdentities::identityByToken(const PeerCredentials& peer, std::string_view requirement) {
  const std::optional<ProgramIdentity> program = programOf(peer);
  if (!program) return {};
  const std::optional<CodeRequirement> required = CodeRequirement::parse(requirement);
  return {
      .bundleID = program->identifier,
      .satisfiesRequirement = program->isValid && required && required->isMetBy(program->identifier, program->team)};
}

PeerIdentity LinuxPeerIdentities::identityByProcess(const PeerCredentials& peer) {
  const std::optional<ProgramIdentity> program = programOf(peer);
  if (!program) return {};
  return {.bundleID = program->identifier, .satisfiesRequirement = false};
}

std::optional<std::string> LinuxPeerIdentities::processPath(int pid) {
  char path[PATH_MAX];
  const ssize_t length = ::readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), path, sizeof path);
  if (length <= 0) return std::nullopt;
  return nameText({path, static_cast<std::size_t>(length)});
}

std::optional<std::uint32_t> LinuxPeerIdentities::processUser(int pid) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> status(
      std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "re"), &std::fclose);
  char line[256];
  unsigned real, effective;
  while (status && std::fgets(line, sizeof line, status.get())) {
    if (std::sscanf(line, "Uid: %u %u", &real, &effective) == 2) return effective;
  }
  return std::nullopt;
}

}  // namespace quillmark::os
