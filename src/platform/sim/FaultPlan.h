// FaultPlan: which one call of a simulated facility goes wrong, and how.
// Threads: plain values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace quillmark::sim {

enum class PosixCall {
  open,
  read,
  write,
  fsync,
  fchmod,
  fchown,
  ftruncate,
  fstat,
  lockFile,
  lstat,
  mkdir,
  rmdir,
  unlink,
  rename,
  chmod,
  chown,
  list,
  // Of a volume's root directory.
  openVolume,
  getxattr,
  setxattr,
  removexattr,
  fsyncVolume,
};

[[nodiscard]] std::string nameOf(PosixCall call);

enum class Fault {
  none,
  fail,        // the call does nothing and answers with the errno
  shortWrite,  // a write of two or more bytes writes half of them; any other call is as always
  kill,        // the life ends before the call has any effect
};

struct FaultPlan {
  std::uint64_t seed = 0;  // of whatever is drawn after the fault, the power cut above all
  Fault fault = Fault::none;
  std::uint64_t atCall = 0;            // counted from 1
  std::optional<PosixCall> only = {};  // absent: calls of all kinds are counted
  int error = 5;                       // EIO

  [[nodiscard]] std::string describe() const;
};

// Thrown where a life ends, when nobody has told the facility how to end one. No std::exception, so that the code under
// test can't take it for a failure; what its destructors still ask of the facility has no effect.
struct SimulatedKill {};

}  // namespace quillmark::sim
