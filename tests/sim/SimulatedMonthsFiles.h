// FailingFiles: the file calls of a simulated process, some of whose stores can't be read, or not be written.
// Ownership: borrows the files, which must outlive it.
// Threads:   confined to the simulation's thread.
#pragma once

#include <cerrno>

#include "SimulatedMonthsCalls.h"
#include "tests/base/ForwardingPosix.h"

namespace quillmark::months {

class FailingFiles final : public ForwardingPosix {
 public:
  FailingFiles(Posix& files, const Failures& failures) : ForwardingPosix(files), failures_(failures) {}

  SysResult<int> open(const std::string& path, OpenFlags flags) override {
    if (!flags.write && failures_.cannotRead.contains(nameIn(path))) return Errno{EIO};
    return inner().open(path, flags);
  }
  // Every store is replaced as a whole.
  SysStatus rename(const std::string& from, const std::string& to) override {
    if (failures_.cannotWrite.contains(nameIn(to))) return Errno{ENOSPC};
    return inner().rename(from, to);
  }

 private:
  static std::string nameIn(const std::string& path) { return path.substr(path.rfind('/') + 1); }

  const Failures& failures_;
};

}  // namespace quillmark::months
