// SysResult: what a system call gave, a value or its errno, before anybody has decided what the failure means.
// The logic branches on it, or turns it into an Error once, at the call.
#pragma once

#include <cstdlib>
#include <optional>
#include <utility>

namespace quillmark {

// An errno value of the host (errno(3)); never 0.
struct Errno {
  int value;
};

template <class Value>
class [[nodiscard]] SysResult final {
 public:
  SysResult(Value value) : value_(std::move(value)) {}
  SysResult(Errno error) : errno_(error.value) {}

  explicit operator bool() const { return value_.has_value(); }
  [[nodiscard]] bool ok() const { return value_.has_value(); }
  // The errno of a failure, 0 after success.
  [[nodiscard]] int error() const { return errno_; }
  [[nodiscard]] Value& operator*() { return require(); }
  [[nodiscard]] const Value& operator*() const { return const_cast<SysResult*>(this)->require(); }
  [[nodiscard]] Value* operator->() { return &require(); }
  [[nodiscard]] const Value* operator->() const { return &**this; }

 private:
  Value& require() {
    if (!value_) std::abort();
    return *value_;
  }
  std::optional<Value> value_;
  int errno_ = 0;
};

template <>
class [[nodiscard]] SysResult<void> final {
 public:
  SysResult() = default;
  SysResult(Errno error) : errno_(error.value) {}

  explicit operator bool() const { return errno_ == 0; }
  [[nodiscard]] bool ok() const { return errno_ == 0; }
  [[nodiscard]] int error() const { return errno_; }

 private:
  int errno_ = 0;
};

using SysStatus = SysResult<void>;

}  // namespace quillmark
