// A fiber: a flow of control with a stack of its own, entered by `resume` and left by `suspend`. The kernel's
// tasks and its interrupt context are fibers of one host thread.
#pragma once

#include <cstddef>
#include <functional>

namespace headend {

class Fiber {
 public:
  explicit Fiber(std::function<void()> body);
  Fiber(const Fiber&) = delete;
  Fiber& operator=(const Fiber&) = delete;
  // A fiber that has not finished is dropped where it stands: nothing on its stack is destroyed.
  ~Fiber();

  void resume();   // from outside: runs the body until it suspends or returns
  void suspend();  // from inside: back to whoever resumed
  bool finished() const { return finished_; }

 private:
  static void entry(void* self);

  std::function<void()> body_;
  bool finished_ = false;
  void* stackBase_ = nullptr;
  void* self_ = nullptr;    // where the fiber goes on
  void* caller_ = nullptr;  // where its resumer goes on

  // What the address sanitizer must be told at a switch; unused in other builds.
  void* callerFakeStack_ = nullptr;
  void* fakeStack_ = nullptr;
  const void* callerStack_ = nullptr;
  std::size_t callerStackSize_ = 0;
};

}  // namespace headend
