#include "platform/sim/Fiber.h"

#include <boost/context/detail/fcontext.hpp>
#include <cxxabi.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#define QM_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QM_ADDRESS_SANITIZER 1
#endif
#endif

#if defined(QM_ADDRESS_SANITIZER)
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#include <sanitizer/lsan_interface.h>
#endif

namespace quillmark::sim {
namespace {

namespace context = boost::context::detail;

std::size_t pageSize() { return static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)); }

#if defined(QM_ADDRESS_SANITIZER)
void startSwitch(void** fakeStack, const void* bottom, std::size_t size) {
  __sanitizer_start_switch_fiber(fakeStack, bottom, size);
}
void finishSwitch(void* fakeStack, const void** bottom, std::size_t* size) {
  __sanitizer_finish_switch_fiber(fakeStack, bottom, size);
}
// A suspended stack is nobody's to the leak sanitizer unless it is told.
void adoptStack(void* stack, std::size_t size) { __lsan_register_root_region(stack, size); }
void disownStack(void* stack, std::size_t size) {
  __lsan_unregister_root_region(stack, size);
  __asan_unpoison_memory_region(stack, size);
}
void ignoreLeak(const void* object) { __lsan_ignore_object(object); }
constexpr bool keepsAbandoned = true;
#else
void startSwitch(void**, const void*, std::size_t) {}
void finishSwitch(void*, const void**, std::size_t*) {}
void adoptStack(void*, std::size_t) {}
void disownStack(void*, std::size_t) {}
void ignoreLeak(const void*) {}
constexpr bool keepsAbandoned = false;
#endif

}  // namespace

struct Fiber::Switches {
  static void start(context::transfer_t from) {
    auto* const fiber = static_cast<Fiber*>(from.data);
    fiber->home_ = from.fctx;
    finishSwitch(nullptr, &fiber->homeStack_, &fiber->homeStackSize_);
    fiber->body_();
    std::abort();
  }
  static ExceptionGlobals& exceptions() { return *reinterpret_cast<ExceptionGlobals*>(abi::__cxa_get_globals()); }
};

Fiber::Fiber(std::size_t stackSize, UniqueFunction<void()> body) : body_(std::move(body)) {
  const std::size_t page = pageSize();
  size_ = (stackSize + page - 1) / page * page + page;
  void* const memory =
      ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  memory_ = static_cast<std::byte*>(memory);
  ::mprotect(memory_, page, PROT_NONE);
  adoptStack(memory_ + page, size_ - page);
  context_ = context::make_fcontext(memory_ + size_, size_ - page, Switches::start);
}

Fiber::~Fiber() {
  if (!memory_) return;
  const std::size_t page = pageSize();
  disownStack(memory_ + page, size_ - page);
  ::munmap(memory_, size_);
}

void Fiber::abandon() {
  if (keepsAbandoned) memory_ = nullptr;
}

void Fiber::enter() {
  ExceptionGlobals& globals = Switches::exceptions();
  const ExceptionGlobals homeExceptions = std::exchange(globals, exceptions_);
  const int homeError = std::exchange(errno, error_);
  const std::size_t page = pageSize();
  void* homeFakeStack = nullptr;
  startSwitch(&homeFakeStack, memory_ + page, size_ - page);
  context_ = context::jump_fcontext(context_, this).fctx;
  finishSwitch(homeFakeStack, nullptr, nullptr);
  error_ = std::exchange(errno, homeError);
  exceptions_ = std::exchange(globals, homeExceptions);
}

void Fiber::leave() {
  startSwitch(&fakeStack_, homeStack_, homeStackSize_);
  home_ = context::jump_fcontext(home_, nullptr).fctx;
  finishSwitch(fakeStack_, &homeStack_, &homeStackSize_);
}

void loseOnPurpose(const void* object) { ignoreLeak(object); }

}  // namespace quillmark::sim
