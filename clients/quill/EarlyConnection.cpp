#include "quill/EarlyConnection.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/linux/TransportClient.h"
#include "quill/Failures.h"

namespace quillmark::cli {
namespace {

constexpr std::size_t longestValue = 64;
constexpr std::string_view alphanumeric = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

struct Variable {
  const char* name;
  std::string_view punctuation;  // that its value may have beside letters and digits
};
constexpr Variable kept[] = {
    {"TERM", "-._+"},        {"NO_COLOR", "-._"},    {"COLUMNS", ""},     {"LANG", "-._@"},
    {"LC_ALL", "-._@"},      {"LC_CTYPE", "-._@"},   {"LC_TIME", "-._@"}, {"LC_NUMERIC", "-._@"},
    {"LC_MESSAGES", "-._@"}, {"LC_COLLATE", "-._@"}, {"TZ", "-._+/,<>:"},
};

// The name of a zone, or its rule, but no path of the person's own: what reads it would take any file for a zone.
bool namesAFile(std::string_view value) {
  return value.starts_with('/') || value.starts_with(':') || value.find("..") != std::string_view::npos;
}

bool isHarmless(std::string_view value, std::string_view punctuation) {
  const auto isPlain = [&](char c) {
    return alphanumeric.find(c) != std::string_view::npos || punctuation.find(c) != std::string_view::npos;
  };
  return value.size() <= longestValue && std::all_of(value.begin(), value.end(), isPlain) && !namesAFile(value);
}

}  // namespace

PagerWish keepHarmlessEnvironment() {
  const auto valueOf = [](const char* name) {
    const char* value = std::getenv(name);
    return value ? std::optional<std::string>(value) : std::nullopt;
  };
  PagerWish pager{valueOf("PAGER"), valueOf("LESS")};
  std::vector<std::pair<const char*, std::string>> harmless;
  for (const Variable& variable : kept) {
    const char* value = std::getenv(variable.name);
    if (value && isHarmless(value, variable.punctuation)) harmless.emplace_back(variable.name, value);
  }
  ::clearenv();
  for (const auto& [name, value] : harmless) ::setenv(name, value.c_str(), 1);
  ::setenv("PATH", "/usr/local/bin:/usr/bin:/bin", 1);
  return pager;
}

EarlyConnection connectAndDropGroup(const std::string& socket) {
  EarlyConnection early;
  const gid_t own = ::getgid();
  if (::getegid() == own) return early;
  try {
    early.channel = os::LinuxClientChannel::connect(socket);
  } catch (const Error& error) {
    early.failure = error;
  }
  if (::setresgid(own, own, own) != 0 || ::getegid() != own) ::_exit(exitFailed);
  return early;
}

}  // namespace quillmark::cli
