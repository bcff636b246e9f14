#include "service/RefusalBudget.h"

#include <fmt/format.h>

#include "base/HelperLog.h"

namespace quillmark {
namespace {

std::string nameOf(std::optional<std::uint32_t> user) { return user ? fmt::format("uid={}", *user) : "other users"; }

}  // namespace

bool RefusalBudget::tells(std::uint32_t user, HelperLog& log) {
  std::vector<std::string> ended;
  bool isTold = true;
  {
    MutexLock lock(lock_);
    ended = endSpans();
    const auto found = counts_.find(payer(user));
    isTold = found == counts_.end() || found->second.refused < toldPerSpan;
  }
  for (const std::string& line : ended) log.warn(line);
  return isTold;
}

void RefusalBudget::refused(std::uint32_t user, HelperLog& log) {
  std::optional<std::string> last;
  {
    MutexLock lock(lock_);
    const auto paying = payer(user);
    const auto place = counts_.try_emplace(paying, Count{clock_.monotonic(), 0}).first;
    if (++place->second.refused == toldPerSpan) {
      last = fmt::format("{} connections of {} were refused within a minute: further ones are only counted",
                         toldPerSpan, nameOf(paying));
    }
  }
  if (last) log.warn(*last);
}

std::optional<std::uint32_t> RefusalBudget::payer(std::uint32_t user) {
  if (counts_.contains(user) || counts_.size() < mostUsers) return user;
  return std::nullopt;
}

std::vector<std::string> RefusalBudget::endSpans() {
  std::vector<std::string> lines;
  const MonotonicTime now = clock_.monotonic();
  std::erase_if(counts_, [&](const auto& entry) {
    const auto& [user, count] = entry;
    if (now < count.since + span) return false;
    if (count.refused > toldPerSpan) {
      lines.push_back(fmt::format("{} more connections of {} were refused", count.refused - toldPerSpan, nameOf(user)));
    }
    return true;
  });
  return lines;
}

}  // namespace quillmark
