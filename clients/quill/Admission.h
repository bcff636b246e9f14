// Whom the helper lets in, from the side of one who stands before it: root and the members of a group, who became so
// before they logged in.
// Threads: thread-safe; may wait for a directory service.
#pragma once

#include <string>

namespace quillmark::cli {

struct Admission {
  enum class Standing {
    welcome,     // root, or a member in this session
    afterLogin,  // a member, but this session began before that
    stranger,
    groupIsMissing,
    unknown,
  } standing = Standing::unknown;
  std::string user;  // the name, or the number where there is none
};

// Of the user who runs this.
[[nodiscard]] Admission admissionHere();

// What one who wasn't let in can do.
[[nodiscard]] std::string adviceOnAdmission(const Admission& admission, const std::string& helperLog);

}  // namespace quillmark::cli
