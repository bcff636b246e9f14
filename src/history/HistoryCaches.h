// HistoryCaches: what is made from the history, and has to go with it.
// Threads: thread-safe; called with no lock held.
#pragma once

#include <set>

#include "base/Uuid.h"
#include "base/Xid.h"

namespace quillmark {

class HistoryCaches {
 public:
  virtual ~HistoryCaches() = default;
  virtual void purge(const VolumeUuid& volume) = 0;
  virtual void purge(const VolumeUuid& volume, const std::set<Xid>& xids) = 0;
  virtual void purgeAll() = 0;
};

}  // namespace quillmark
