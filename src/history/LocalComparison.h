// LocalComparisons: what two directories, or two files, of this machine differ in, as they are now. Nothing of it is kept.
// They are read with the rights of the user who asks: what he may not list is left out like what isn't there.
// Ownership: borrows the facilities; shares what an abandoned thread touches with that thread.
// Threads:   thread-safe; blocks while both are read, and until there is room: one at a time for a user and two in all, for
//            both trees are in memory meanwhile.
// Memory:    an eighth of the machine's for the trees of all, so that nobody can keep the history from reading its own.
// Errors:    throws Error of the scanner; ECANCELED once the asker is gone; insufficientPrivileges for what stopped
//            answering. Its threads are left alone then, and until they come back its user has no second one.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "history/Comparison.h"
#include "history/index/ExclusionRules.h"
#include "snapshots/PeerAuthorization.h"

namespace quillmark {

class DirectoryReader;
class Dispatch;
class HelperLog;
class MemoryReturn;
class Posix;
class ThreadIdentity;
class TreeMemory;

class LocalComparisons final {
 public:
  struct Side {
    std::string path;                      // absolute
    std::shared_ptr<const PeerItem> item;  // what the user was found to be allowed; not for uid 0
  };
  struct Request {
    PeerUser user;
    Side a, b;
    std::optional<ExclusionRules> rules;
    std::vector<std::string> baseComponents;  // where the rules see the roots of both
    std::function<bool()> isAbandoned;        // whether nobody waits for the answer any more; may be empty
  };

  LocalComparisons(Dispatch& dispatch, DirectoryReader& directories, Posix& posix, ThreadIdentity& identities,
                   HelperLog& log, MemoryReturn* memory = nullptr);
  ~LocalComparisons();

  // Items of one device are the same by their inode and witness of content, others by what is seen of them.
  [[nodiscard]] Comparison compare(const Request& request);

 private:
  class Places;
  class Place;
  struct Scan;
  [[nodiscard]] std::shared_ptr<Scan> begin(const Request& request, const Side& side, std::shared_ptr<Place> place);
  void finish(Scan& scan, Scan& other, Place& place, const Request& request);

  Dispatch& dispatch_;
  DirectoryReader& directories_;
  Posix& posix_;
  ThreadIdentity& identities_;
  HelperLog& log_;
  MemoryReturn* const memory_;  // null: nobody is told what was used
  const std::shared_ptr<TreeMemory> treeMemory_;
  const std::shared_ptr<Places> places_;
};

}  // namespace quillmark
