// The part of the debug shell that management software can use: calls of a card's bench and filter routines,
// each in its own task, and the lines that they print.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "headend/firmware/back_end.h"

namespace headend {

class DebugShell {
 public:
  static constexpr int kPriority = 240;           // below all tasks that keep a channel on the air
  static constexpr std::size_t kRemembered = 32;  // calls; older finished calls are deleted

  DebugShell(Kernel& kernel, BackEnd& backEnd);  // provides the operations kCall and kCallResult

  // A debug line of the running task; it is kept if the task is a call.
  void printed(const Task* task, const std::string& text);

 private:
  struct Call {
    u32 number = 0;
    int task = -1;
    bool finished = false;
    std::string printed{};
  };

  // Starts a call (name, 0, arguments of four bytes); queries its result.
  u32 call(const protocol::Request& request, base::Bytes& reply);
  u32 result(const protocol::Request& request, base::Bytes& reply) const;

  Kernel& kernel_;
  std::deque<Call> calls_;
  u32 made_ = 0;
};

}  // namespace headend
