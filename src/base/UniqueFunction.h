// UniqueFunction: a callable that is moved, never copied, so that it may own what it captures (a reply, a descriptor).
// Calling an empty one is a defect and ends the process.
// Threads: thread-compatible.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <type_traits>
#include <utility>

namespace quillmark {

template <class Signature>
class UniqueFunction;

template <class Result, class... Arguments>
class UniqueFunction<Result(Arguments...)> final {
 public:
  UniqueFunction() = default;
  UniqueFunction(std::nullptr_t) {}
  template <class Callable>
  requires(!std::is_same_v<std::remove_cvref_t<Callable>, UniqueFunction> &&
           std::is_invocable_r_v<Result, std::remove_cvref_t<Callable>&, Arguments...>)
      UniqueFunction(Callable&& callable)
      : target_(std::make_unique<Target<std::remove_cvref_t<Callable>>>(std::forward<Callable>(callable))) {}

  explicit operator bool() const { return target_ != nullptr; }
  Result operator()(Arguments... arguments) {
    if (!target_) std::abort();
    return target_->call(std::forward<Arguments>(arguments)...);
  }

 private:
  struct Callee {
    virtual ~Callee() = default;
    virtual Result call(Arguments... arguments) = 0;
  };
  template <class Callable>
  struct Target final : Callee {
    template <class From>
    explicit Target(From&& from) : callable(std::forward<From>(from)) {}
    Result call(Arguments... arguments) override { return callable(std::forward<Arguments>(arguments)...); }
    Callable callable;
  };
  std::unique_ptr<Callee> target_;
};

}  // namespace quillmark
