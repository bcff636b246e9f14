// NotificationStateFile: when each key was last posted, on disk: cooldowns and active conditions outlive the process.
// Ownership: borrows the facilities, which must outlive it.
// Threads:   as StateFile; its owner keeps two callers apart.
// Errors:    none. What can't be read is empty, and a failed write is lost: one notice too many may go out.
#pragma once

#include <map>
#include <string>

#include "base/Date.h"
#include "scheduling/StateFile.h"

namespace quillmark {

class NotificationStateFile final {
 public:
  using DatesByKey = std::map<std::string, Date>;

  NotificationStateFile(Posix& posix, Random& random, const HostPaths& paths);

  [[nodiscard]] DatesByKey load() const;
  void save(const DatesByKey& lastPostedByKey) const;

 private:
  const StateFile file_;
};

}  // namespace quillmark
