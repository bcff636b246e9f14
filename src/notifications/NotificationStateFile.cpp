#include "notifications/NotificationStateFile.h"

#include "wire/RecordCoding.h"

namespace quillmark {
namespace {

struct State {
  NotificationStateFile::DatesByKey lastPostedByKey;
};

}  // namespace

template <>
struct Description<State> {
  static constexpr DateStyle dateStyle = DateStyle::iso8601;
  static void fields(auto& field, auto& state) { field("lastPostedByKey", state.lastPostedByKey); }
};

NotificationStateFile::NotificationStateFile(Posix& posix, Random& random, const HostPaths& paths)
    : file_(posix, random, paths, "notifications-state.json") {}

NotificationStateFile::DatesByKey NotificationStateFile::load() const {
  try {
    if (const auto text = file_.read()) return decodeJson<State>(*text).lastPostedByKey;
  } catch (const std::exception&) {
    // Whatever the file was, the next write replaces it.
  }
  return {};
}

void NotificationStateFile::save(const DatesByKey& lastPostedByKey) const {
  try {
    file_.replace(encodeJson(State{lastPostedByKey}));
  } catch (const std::exception&) {
    // The next change tries again.
  }
}

}  // namespace quillmark
