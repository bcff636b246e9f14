#include "snapshots/PathTrail.h"

#include <algorithm>
#include <cerrno>

#include "platform/ThreadIdentity.h"

namespace quillmark {
namespace {

constexpr int mostLinks = 40;
constexpr std::size_t mostNames = 4'096;

}  // namespace

PathTrail::Names PathTrail::split(const std::string& path) {
  Names names;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    const std::string name = path.substr(at, end - at);
    if (!name.empty() && name != ".") names.push_back(name);
    at = end + 1;
  }
  return names;
}

PathTrail::PathTrail(const std::string& path) : names_(split(path)) {}

std::string PathTrail::text() const {
  std::string text;
  for (const std::string& name : names_) {
    if (name == "..") break;
    text += "/" + name;
  }
  return text.empty() ? "/" : text;
}

std::string PathTrail::next() {
  std::string name = std::move(names_.front());
  names_.pop_front();
  if (fromLinks_ > 0) --fromLinks_;
  return name;
}

PathTrail PathTrail::from(const Names& walked) const {
  PathTrail trail = *this;
  trail.names_.insert(trail.names_.begin(), walked.begin(), walked.end());
  trail.fromLinks_ += walked.size();
  return trail;
}

std::optional<PathTrail> PathTrail::through(Names walked, const std::string& link) const {
  PathTrail trail = *this;
  Names names = split(link);
  trail.names_.insert(trail.names_.begin(), names.begin(), names.end());
  trail.fromLinks_ += names.size();
  if (link.starts_with('/')) walked.clear();
  for (; !trail.names_.empty() && trail.names_.front() == ".."; static_cast<void>(trail.next())) {
    if (!walked.empty()) walked.pop_back();
  }
  if (++trail.links_ > mostLinks || trail.names_.size() + walked.size() > mostNames) return std::nullopt;
  return trail.from(walked);
}

PathTrail::End PathTrail::walk(ThreadIdentity& identities, const std::string& volume) const {
  PathTrail rest = *this;
  Names walked = split(volume);
  for (std::size_t i = 0; i < walked.size() && !rest.names_.empty(); ++i) static_cast<void>(rest.next());
  const SysResult<int> root = identities.openVolume(volume);
  if (!root) return {};
  auto at = std::make_shared<const PeerItem>(identities, *root);
  while (!rest.names_.empty()) {
    const bool isOwn = rest.fromLinks_ == 0;
    const std::string name = rest.next();
    if (name == "..") {
      if (!walked.empty()) walked.pop_back();
      return {.next = rest.from(walked)};
    }
    const SysResult<ThreadIdentity::Step> step = identities.step(at->fd(), name);
    if (step.error() == EXDEV) {  // mounted there meanwhile
      walked.push_back(name);
      return {.next = rest.from(walked)};
    }
    if (step.error() == ENOENT && isOwn) return {.item = at, .isMissing = true};
    if (!step) return {};
    auto found = std::make_shared<const PeerItem>(identities, step->fd);
    if (step->link) {
      const bool isLast = isOwn && rest.names_.empty();
      return {.next = rest.through(walked, *step->link), .link = isLast ? found : nullptr};
    }
    at = std::move(found);
    walked.push_back(name);
  }
  return {.item = at};
}

}  // namespace quillmark
