#include "headend/kernel/fiber.h"

#include <boost/context/detail/fcontext.hpp>
#include <boost/context/protected_fixedsize_stack.hpp>
#include <utility>

#if defined(__SANITIZE_ADDRESS__)
#define HEADEND_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define HEADEND_ASAN 1
#endif
#endif

#ifdef HEADEND_ASAN
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#endif

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#endif

namespace headend {
namespace {

namespace context = boost::context::detail;

constexpr std::size_t kStackSize = 256 * 1024;  // printing on a host needs more than a card's 4096 bytes
using Stack = boost::context::protected_fixedsize_stack;

void beforeSwitch([[maybe_unused]] void** fakeStack, [[maybe_unused]] const void* bottom,
                  [[maybe_unused]] std::size_t size) {
#ifdef HEADEND_ASAN
  __sanitizer_start_switch_fiber(fakeStack, bottom, size);
#endif
}

void afterSwitch([[maybe_unused]] void* fakeStack, [[maybe_unused]] const void** bottom,
                 [[maybe_unused]] std::size_t* size) {
#ifdef HEADEND_ASAN
  __sanitizer_finish_switch_fiber(fakeStack, bottom, size);
#endif
}

}  // namespace

Fiber::Fiber(std::function<void()> body) : body_(std::move(body)), stack_(Stack(kStackSize).allocate()) {
  self_ = context::make_fcontext(stack_.sp, stack_.size, [](context::transfer_t from) {
    auto* fiber = static_cast<Fiber*>(from.data);
    fiber->caller_ = from.fctx;
    fiber->run();
  });
#ifdef VALGRIND_STACK_REGISTER
  VALGRIND_STACK_REGISTER(stackBottom(), stack_.sp);  // or it takes each switch for an error
#endif
}

Fiber::~Fiber() {
#ifdef HEADEND_ASAN
  // A task that never ended has left marks around its locals; the next fiber's stack may be at the same
  // address.
  ASAN_UNPOISON_MEMORY_REGION(stackBottom(), kStackSize);
#endif
  Stack(kStackSize).deallocate(stack_);
}

const void* Fiber::stackBottom() const {
  return static_cast<const char*>(stack_.sp) - kStackSize;
}

void Fiber::run() {
  afterSwitch(nullptr, &callerStack_, &callerStackSize_);
  body_();
  finished_ = true;
  beforeSwitch(nullptr, callerStack_, callerStackSize_);
  context::jump_fcontext(caller_, nullptr);
}

void Fiber::resume() {
  beforeSwitch(&callerFakeStack_, stackBottom(), kStackSize);
  const context::transfer_t back = context::jump_fcontext(self_, this);
  afterSwitch(callerFakeStack_, nullptr, nullptr);
  self_ = back.fctx;
}

void Fiber::suspend() {
  beforeSwitch(&fakeStack_, callerStack_, callerStackSize_);
  const context::transfer_t again = context::jump_fcontext(caller_, nullptr);
  afterSwitch(fakeStack_, &callerStack_, &callerStackSize_);
  caller_ = again.fctx;
}

}  // namespace headend
