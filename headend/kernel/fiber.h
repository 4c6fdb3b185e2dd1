// A fiber: a flow of control with its own stack, entered by `resume` and left by `suspend`. The kernel's
// tasks and its interrupt context are fibers of one host thread.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <boost/context/stack_context.hpp>
#include <cstddef>
#include <functional>

namespace headend {

class Fiber : boost::noncopyable {
 public:
  explicit Fiber(std::function<void()> body);
  // A fiber that has not finished is discarded: objects on its stack are not destroyed.
  ~Fiber();

  void resume();   // from outside: runs the body until it suspends or returns
  void suspend();  // from inside: back to the caller of `resume`
  bool finished() const { return finished_; }

 private:
  void run();
  const void* stackBottom() const;

  std::function<void()> body_;
  bool finished_ = false;
  boost::context::stack_context stack_;
  void* self_ = nullptr;    // where the fiber continues
  void* caller_ = nullptr;  // where its resumer continues

  // For the address sanitizer at a switch; unused in other builds.
  void* callerFakeStack_ = nullptr;
  void* fakeStack_ = nullptr;
  const void* callerStack_ = nullptr;
  std::size_t callerStackSize_ = 0;
};

}  // namespace headend
