// FunctionRef: a borrowed callable for parameters that are called before the function returns.
// Ownership: borrows; never store one.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace quillmark {

template <class Signature>
class FunctionRef;

template <class Result, class... Arguments>
class FunctionRef<Result(Arguments...)> final {
 public:
  template <class Callable>
  requires(!std::is_same_v<std::remove_cvref_t<Callable>, FunctionRef> &&
           std::is_invocable_r_v<Result, Callable&, Arguments...>) FunctionRef(Callable&& callable)
      : object_(const_cast<void*>(static_cast<const void*>(std::addressof(callable)))),
        call_([](void* object, Arguments... arguments) -> Result {
          return (*static_cast<std::add_pointer_t<Callable>>(object))(std::forward<Arguments>(arguments)...);
        }) {}
  Result operator()(Arguments... arguments) const { return call_(object_, std::forward<Arguments>(arguments)...); }

 private:
  void* object_;
  Result (*call_)(void*, Arguments...);
};

}  // namespace quillmark
