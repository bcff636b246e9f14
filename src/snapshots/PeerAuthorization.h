// PeerAuthorization: what may this peer do here? No rule of rights is told anew: the kernel is asked, by a throw-away thread
// with the peer's identity. A volume that doesn't answer is fenced for a while, so that questions don't pile up on it.
// Ownership: borrows the facilities; shares what an abandoned thread touches with that thread.
// Threads:   thread-safe; blocks the caller for the timeout and the wait for a slot at most. The lock is never held over a
//            file system call or a line of the log.
// Errors:    authorize and authorizeOpenDirectory throw insufficientPrivileges (1040) with a sentence for the user.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Error.h"
#include "platform/dispatch.h"

namespace quillmark {

class HelperLog;
class ThreadIdentity;

// Whose rights are asked.
struct PeerUser {
  std::uint32_t uid = 0;
  std::optional<std::vector<std::uint32_t>> groups = {};  // as they were at connect; absent: by the databases
};

// What a user was allowed, held open as it was found. Naming it reads nothing of it.
class PeerItem final {
 public:
  PeerItem(ThreadIdentity& identities, int fd) : identities_(identities), fd_(fd) {}
  ~PeerItem();
  PeerItem(const PeerItem&) = delete;
  PeerItem& operator=(const PeerItem&) = delete;
  [[nodiscard]] int fd() const { return fd_; }

 private:
  ThreadIdentity& identities_;
  const int fd_;
};

enum class Verdict { allowed, denied, unresponsive };
enum class Asked { mayRead, mayCreate };  // create or replace an entry at the path

class PeerAuthorization final {
 public:
  PeerAuthorization(Dispatch& dispatch, ThreadIdentity& identities, HelperLog& log);
  ~PeerAuthorization();
  PeerAuthorization(const PeerAuthorization&) = delete;
  PeerAuthorization& operator=(const PeerAuthorization&) = delete;

  // A path that isn't absolute is denied; uid 0 is allowed everything, without a look.
  [[nodiscard]] Verdict check(Asked asked, const std::string& path, const PeerUser& user, std::chrono::seconds timeout);
  // The same question of an item that is read afterwards. It was this one that the user may read, whatever the path leads
  // to by then.
  struct Found {
    Verdict verdict = Verdict::denied;
    std::shared_ptr<const PeerItem> item;  // a link not followed; null for uid 0, and when there is none
  };
  [[nodiscard]] Found find(const std::string& path, const PeerUser& user, std::chrono::seconds timeout);
  // The verb completes "you do not have permission to ...".
  void authorize(Asked asked, const std::string& path, const PeerUser& user, std::string_view verb,
                 std::chrono::seconds timeout);
  // The last question before a write, asked of the directory that it will really go into. The path is for texts and for
  // the volume's name. The descriptor stays the caller's.
  void authorizeOpenDirectory(int directory, const std::string& path, const PeerUser& user, std::string_view verb,
                              std::chrono::seconds timeout);
  // A file system was mounted there: whatever was fenced there gets a new chance.
  void volumeRemounted(const std::string& mountPath);

  // For a throw-away thread: it is the user's from here on. False when it can't be.
  [[nodiscard]] static bool assume(ThreadIdentity& identities, const PeerUser& user);

  // For callers of check: what authorize would have thrown.
  [[nodiscard]] static Error denied(std::string_view verb, const std::string& path);
  [[nodiscard]] static Error unresponsive(std::string_view verb, const std::string& path);

 private:
  class Throttle;
  struct Box;
  struct Question;
  struct Outcome;
  [[nodiscard]] Found lookUp(Asked asked, const std::string& path, const PeerUser& user, std::chrono::seconds timeout);
  [[nodiscard]] Outcome ask(const std::string& key, std::chrono::seconds timeout, Question question);

  Dispatch& dispatch_;
  ThreadIdentity& identities_;
  HelperLog& log_;
  const std::shared_ptr<Throttle> throttle_;
};

}  // namespace quillmark
