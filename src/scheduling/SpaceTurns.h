// SpaceTurns: lets the low-space passes of volumes that share their space run one after the other, so that nothing goes
// for space that another pass is getting back. Whoever comes too early is told when to come again, and blocks nobody.
// Ownership: outlives its turns.
// Threads:   thread-safe; who waits is called from the thread that ends a turn.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "platform/dispatch.h"
#include "platform/sync.h"

namespace quillmark {

class SpaceTurns final {
 public:
  class Turn final {
   public:
    Turn(SpaceTurns& turns, std::string space) : turns_(turns), space_(std::move(space)) {}
    ~Turn() { turns_.end(space_); }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    SpaceTurns& turns_;
    const std::string space_;
  };

  explicit SpaceTurns(Threads& threads) : waiting_(threads) {}

  // Null when somebody has the turn, at whose end `again` is called once.
  [[nodiscard]] std::unique_ptr<Turn> take(const std::string& space, Work again) {
    const bool isFree = waiting_.with([&](auto& waiting) {
      const auto [entry, isNew] = waiting.try_emplace(space);
      if (!isNew) entry->second.push_back(std::move(again));
      return isNew;
    });
    return isFree ? std::make_unique<Turn>(*this, space) : nullptr;
  }

 private:
  void end(const std::string& space) {
    std::vector<Work> all = waiting_.with([&](auto& waiting) { return std::move(waiting.extract(space).mapped()); });
    for (Work& again : all) again();
  }

  Guarded<std::map<std::string, std::vector<Work>>> waiting_;  // an entry for each turn that is taken
};

}  // namespace quillmark
