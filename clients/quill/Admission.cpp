#include "quill/Admission.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <vector>

namespace quillmark::cli {
namespace {

constexpr const char* groupName = "quillmark";
constexpr std::size_t largestRecord = std::size_t{1} << 20;

struct Person {
  std::string name;
  gid_t group;
};

std::optional<Person> personOf(uid_t uid) {
  std::vector<char> buffer(largestRecord);
  passwd record;
  passwd* found = nullptr;
  if (::getpwuid_r(uid, &record, buffer.data(), buffer.size(), &found) != 0 || !found) return std::nullopt;
  return Person{found->pw_name, found->pw_gid};
}

// Absent when the group isn't there, or can't be asked for.
std::optional<gid_t> groupID() {
  std::vector<char> buffer(largestRecord);
  group record;
  group* found = nullptr;
  if (::getgrnam_r(groupName, &record, buffer.data(), buffer.size(), &found) != 0 || !found) return std::nullopt;
  return found->gr_gid;
}

bool holds(const std::vector<gid_t>& groups, gid_t group) {
  return std::find(groups.begin(), groups.end(), group) != groups.end();
}

bool isInSession(gid_t group) {
  if (::getegid() == group) return true;
  std::vector<gid_t> groups(static_cast<std::size_t>(std::max(::getgroups(0, nullptr), 0)));
  const int count = ::getgroups(static_cast<int>(groups.size()), groups.data());
  groups.resize(static_cast<std::size_t>(std::max(count, 0)));
  return holds(groups, group);
}

bool isOnRecord(const Person& person, gid_t group) {
  int count = 64;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  if (::getgrouplist(person.name.c_str(), person.group, groups.data(), &count) < 0 && count > 64) {
    groups.resize(static_cast<std::size_t>(count));
    if (::getgrouplist(person.name.c_str(), person.group, groups.data(), &count) < 0) return false;
  }
  groups.resize(static_cast<std::size_t>(std::max(count, 0)));
  return holds(groups, group);
}

}  // namespace

Admission admissionHere() {
  using enum Admission::Standing;
  const uid_t uid = ::geteuid();
  const auto person = personOf(uid);
  Admission here{unknown, person ? person->name : std::to_string(uid)};
  const auto group = groupID();
  if (uid == 0 || (group && isInSession(*group))) {
    here.standing = welcome;
  } else if (!group) {
    here.standing = groupIsMissing;
  } else {
    here.standing = person && isOnRecord(*person, *group) ? afterLogin : stranger;
  }
  return here;
}

std::string adviceOnAdmission(const Admission& admission, const std::string& helperLog) {
  switch (admission.standing) {
    case Admission::Standing::welcome:
      return fmt::format(
          "It lets you in, but only through an installed quill, and not while it quits; its log says why "
          "it didn't: {}",
          helperLog);
    case Admission::Standing::afterLogin:
      return fmt::format("You ({}) are a member of the group {} since after you logged in: log out and in again.",
                         admission.user, groupName);
    case Admission::Standing::stranger:
      return fmt::format(
          "It serves root and the members of the group {0}, and you ({1}) are none. As root: usermod -aG "
          "{0} {1}. Then log out and in again.",
          groupName, admission.user);
    case Admission::Standing::groupIsMissing:
      return fmt::format(
          "It serves root, and the members of the group {}, which this machine lacks: quill isn't "
          "installed completely.",
          groupName);
    case Admission::Standing::unknown: break;
  }
  return fmt::format("It serves root and the members of the group {}: join it, then log out and in again.", groupName);
}

}  // namespace quillmark::cli
