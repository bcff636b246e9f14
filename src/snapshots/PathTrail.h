// PathTrail: a path on its way to an item, one volume at a time. Whoever follows it touches no other volume than the one it
// goes on on: at a link, at ".." and where another volume begins the walk ends, and goes on as another trail.
// Ownership: a value. The walk borrows the identities; what it gives out is the caller's.
// Threads:   thread-compatible; walk() on a throw-away thread that has taken its identity on.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "snapshots/PeerAuthorization.h"

namespace quillmark {

class PathTrail final {
 public:
  // Of an absolute path.
  explicit PathTrail(const std::string& path);

  // As far as the text tells where it leads.
  [[nodiscard]] std::string text() const;

  struct End;
  // `volume` is the mount point that holds text().
  [[nodiscard]] End walk(ThreadIdentity& identities, const std::string& volume) const;

 private:
  using Names = std::deque<std::string>;
  [[nodiscard]] static Names split(const std::string& path);
  [[nodiscard]] std::string next();
  // Goes on behind these names, which are free of links.
  [[nodiscard]] PathTrail from(const Names& walked) const;
  // Absent when there were too many.
  [[nodiscard]] std::optional<PathTrail> through(Names walked, const std::string& link) const;

  Names names_;
  std::size_t fromLinks_ = 0;  // of the first of them, how many aren't the path's own
  int links_ = 0;              // followed so far
};

// Where a walk ended: an item, a directory in which the next name is missing, or another trail. Nothing of it: denied.
struct PathTrail::End {
  std::shared_ptr<const PeerItem> item = nullptr;
  bool isMissing = false;
  std::optional<PathTrail> next = {};
  std::shared_ptr<const PeerItem> link = nullptr;  // the path's own last name, when it is a link that `next` follows
};

}  // namespace quillmark
