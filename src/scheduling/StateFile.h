// StateFile: one file of the state directory, read whole and replaced whole.
// Ownership: borrows the facilities, which must outlive it.
// Threads:   as the facilities; its owner keeps two writers apart.
// Errors:    throws Error in the POSIX domain.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/HostPaths.h"

namespace quillmark {

class Posix;
class Random;

class StateFile final {
 public:
  StateFile(Posix& posix, Random& random, const HostPaths& paths, const std::string& name);

  // False also when nobody can tell.
  [[nodiscard]] bool exists() const;
  // Absent when the file doesn't exist.
  [[nodiscard]] std::optional<std::string> read() const;
  // Makes the state directory if need be, and closes it to everybody but root.
  void secureDirectory() const;
  // Mode 0600, root's, on disk on return. When it fails the file holds the old data or the new, whole.
  void replace(std::string_view data) const;

 private:
  Posix& posix_;
  Random& random_;
  const std::string directory_;
  const std::string path_;
};

}  // namespace quillmark
