// The chassis's real-time kernel in virtual time, on one host thread: tasks and priorities, delays, message
// queues, semaphores, the two clocks and interrupts. Time is in nanoseconds and advances only at operations
// that cost time. Interrupts and task switches occur only there, so each run is the same.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <algorithm>
#include <cstdint>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <queue>
#include <span>
#include <string>
#include <vector>

#include "base/interface.h"
#include "headend/kernel/fiber.h"
#include "platform/kernel.h"

namespace headend {
struct Task;
}

// The kernel's objects behind the handles of platform/kernel.h.
struct os::MsgQ {
  std::size_t maxMessages;
  std::size_t maxLength;
  std::deque<std::vector<char>> messages = {};
  std::vector<headend::Task*> receivers = {};
  std::vector<headend::Task*> senders = {};
};

struct os::Semaphore {
  std::string name = {};
  bool mutex;
  bool available;
  headend::Task* owner = nullptr;  // of a mutex, which its owner may lock again
  int depth = 0;
  std::vector<headend::Task*> waiters = {};
};

namespace headend {

using Nanos = std::int64_t;
inline constexpr Nanos kSecond = 1'000'000'000;
inline constexpr Nanos kNever = std::numeric_limits<Nanos>::max();  // an event that is not expected
inline constexpr Nanos kLongAgo = -kSecond;                         // an event that has not happened yet

// The controller's time for each kind of work.
struct Costs {
  Nanos busAccess = 100;
  Nanos wait5us = 5'000;
  Nanos watchdogKick = 200;
  Nanos loopTurn = 10;
  Nanos kernelCall = 1'000;
  Nanos memoryCall = 2'000;
  Nanos fileCall = 500'000;
  Nanos save = 50'000'000;
};

class Kernel;

// A task of the kernel. Created by `Kernel::spawn`, kept until the kernel is destroyed.
struct Task {
  enum class State { kReady, kRunning, kWaiting, kParked, kFinished };

  int id = 0;
  std::string name;
  int priority = 0;  // 0 is the highest
  int slot = -1;  // the slot for which it works, inherited by the tasks it starts; -1 for the chassis's own
  State state = State::kReady;
  std::unique_ptr<Fiber> fiber;
  int lockDepth = 0;

  // Waiting: for a tick, or on a queue or semaphore with a tick as limit.
  bool timed = false;
  std::uint64_t wakeTick = 0;
  std::vector<Task*>* waitList = nullptr;
  bool timedOut = false;
  std::span<char> receiveInto;  // where a sender stores the message for a waiting receiver
  std::size_t receivedLength = 0;
  bool waitTold = false;
  Nanos waitsSince = 0;  // for a semaphore

  // Polling: the register read last, its value, and the time since which nothing else was done.
  const volatile void* polled = nullptr;
  std::uint16_t polledValue = 0;
  Nanos polledSince = 0;

  // For the watchdog: its time on the processor since it last waited, came to where it waits for work, or the
  // watchdog was kicked, without long polls that only the watchdog ends; and its last register.
  struct Stretch {
    void end() { time = 0, told = false; }
    void resume(Nanos now, Nanos kickedAt) {
      if (kickedAt >= countedTo) end();
      countedTo = now;
    }
    void count(Nanos now, Nanos kickedAt) {
      if (kickedAt >= countedTo) resume(kickedAt, kickedAt);
      time += now - countedTo;
      countedTo = now;
      longest = std::max(longest, time);
    }

    Nanos time = 0;
    Nanos countedTo = 0;
    Nanos longest = 0;
    Nanos longestPoll = 0;
    bool told = false;
    const volatile void* lastRegister = nullptr;
  } stretch;

  Nanos cpuTime = 0;
  Nanos runningSince = 0;
};

// Callbacks for the kernel's events. Called in the context that causes the event.
class KernelObserver : public base::Interface {
 public:
  virtual void auxiliaryClock() {}  // once per tick; calls the cards' routines through `Kernel::interrupt`
  virtual void systemClock() {}
  virtual void queueCreated(os::MsgQ* /*queue*/, const Task* /*by*/) {}
  virtual void messageSent(os::MsgQ* /*queue*/, std::span<const char> /*message*/) {}
  virtual void taskParked(const Task& /*task*/) {}
  virtual void taskReleased(const Task& /*task*/) {}
  // `task` has waited for the semaphore for more than ten seconds; called once per wait.
  virtual void semaphoreLong(const os::Semaphore& /*semaphore*/, const Task& /*task*/) {}
  // `task` has run for longer than the watchdog waits; called once per stretch.
  virtual void watchdogLate(const Task& /*task*/) {}
  // Only the watchdog ends a poll of this register that is in vain.
  virtual bool onlyWatchdogEnds(const volatile void* /*reg*/) { return false; }
  // The current value of a polled register, without an access.
  virtual std::uint16_t peek(const volatile void* reg) = 0;
};

// Delays virtual time, for a run in real time.
class Pace : public base::Interface {
 public:
  virtual void waitUntil(Nanos virtualTime) = 0;
  // The same, but ends as soon as input arrives from outside. Returns the time reached.
  virtual Nanos idleUntil(Nanos virtualTime) = 0;
};

class Kernel : boost::noncopyable {
 public:
  struct Settings {
    int tickHz = 100;
    int auxHz = 1000;
    Costs costs;
    Nanos watchdog = kSecond / 2;  // a task that runs longer without a kick is reported; 0: none is
  };

  Kernel(const Settings& settings, KernelObserver& observer);
  ~Kernel();

  // Runs tasks and clocks until `stop`, or until an interrupt routine does something forbidden.
  void run();
  void stop() { stopping_ = true; }
  // Also stops; `fatalError` then has the error.
  void fail(std::string why) {
    fatal_ = std::move(why);
    stop();
  }
  const std::string& fatalError() const { return fatal_; }
  void setPace(Pace* pace) { pace_ = pace; }

  Nanos now() const { return now_; }
  std::uint64_t auxTicks() const { return auxTicks_; }
  const Settings& settings() const { return settings_; }

  // Calls `action` at a virtual time, between two instructions of the running code. It may wake tasks, but
  // must not block.
  void at(Nanos when, std::function<void()> action);

  // Runs `routine` in interrupt context, as the clocks' handlers do. `name` and `slot` are for messages.
  void interrupt(const char* name, int slot, void (*routine)(u8), u8 argument);

  // Time passes for the running task; interrupts and other tasks may run in between.
  void spend(Nanos cost) {
    now_ += cost;
    if (now_ >= due_) [[unlikely]] {
      overrun(cost);
    }
  }

  // Ends the run if an interrupt routine calls `service`, which waits, allocates or accesses a register.
  void requireTask(const char* service) {
    if (inInterrupt_) [[unlikely]] {
      refuseInInterrupt(service);
    }
  }

  // A service that only a task may call: it ends a poll and costs time.
  void charge(const char* service, Nanos cost) {
    requireTask(service);
    notePollingEnds();
    spend(cost);
  }

  // The watchdog is kicked: no task has run for long.
  void kickWatchdog() {
    charge("Dog", settings_.costs.watchdogKick);
    if (current_ != nullptr) countStretch();
    kickedAt_ = now_;
  }
  // The running task has come to where it waits for work, even if there is work already.
  void readyForWork() {
    countStretch();
    current_->stretch.end();
  }
  void noteWrite(const volatile void* reg) {
    notePollingEnds();
    if (current_ != nullptr) current_->stretch.lastRegister = reg;
  }

  // After a read of `reg` by the running task. A task that reads nothing else for a virtual second is
  // suspended until the register's value changes.
  void notePolling(const volatile void* reg, std::uint16_t value) {
    if (current_ == nullptr) return;
    if (current_->polled != reg || current_->polledValue != value) {
      notePollingEnds();
      current_->polled = current_->stretch.lastRegister = reg;
      current_->polledValue = value;
      current_->polledSince = now_;
    } else if (now_ - current_->polledSince >= kSecond) [[unlikely]] {
      park();
    }
  }
  void notePollingEnds() {
    if (current_ == nullptr || current_->polled == nullptr) return;
    if (now_ - current_->polledSince >= kLongPoll) [[unlikely]] {
      leaveOutPoll();
    }
    current_->polled = nullptr;
  }

  // The services of platform/kernel.h.
  int spawn(std::string name, int priority, std::function<void()> body, int slot = -1);
  int delay(int ticks);
  int lock();
  int unlock();
  os::MsgQ* createQueue(int maxMessages, int maxLength);
  int send(os::MsgQ* queue, std::span<const char> message, int timeout);
  int receive(os::MsgQ* queue, std::span<char> buffer, int timeout);
  os::Semaphore* createMutex(std::string name) {
    return &semaphores_.emplace_back(
        os::Semaphore{.name = std::move(name), .mutex = true, .available = true});
  }
  os::Semaphore* createBinary(bool available) {
    return &semaphores_.emplace_back(os::Semaphore{.mutex = false, .available = available});
  }
  int take(os::Semaphore* semaphore, int timeout);
  int give(os::Semaphore* semaphore);

  // For the chassis's own tasks: wait on a list until woken, or until `timeout` ticks have passed (false).
  bool waitOn(std::vector<Task*>& list, int timeout);
  void wakeFirst(std::vector<Task*>& list);
  void reschedule();  // after a wake, in a task
  void sleepUntil(Nanos when);

  const Task* current() const { return current_; }
  // The code that runs, for the log: "interrupt", a task's name, or "chassis".
  std::string runningName() const {
    return inInterrupt_ ? "interrupt" : current_ != nullptr ? current_->name : "chassis";
  }
  const std::vector<std::unique_ptr<Task>>& tasks() const { return tasks_; }
  Nanos cpuTime(const Task& task) const;  // until now
  Nanos interruptTime() const { return interruptTime_; }

 private:
  struct Event {
    Nanos when;
    std::uint64_t order;
    std::function<void()> action;
    bool operator>(const Event& other) const {
      return when != other.when ? when > other.when : order > other.order;
    }
  };

  void overrun(Nanos cost);
  void idle();
  void dispatchDue();
  void findDue();
  void systemTick();
  void leave();
  void makeReady(Task& task, bool behindEquals = true);
  void waitForTick(Task& task, int ticks);
  void wake(Task& task, bool timedOut);
  void park();
  void countStretch();
  void leaveOutPoll();
  void releaseParked();
  void reportLongWaits();
  void refuseInInterrupt(const char* service);
  static constexpr Nanos kLongPoll = kSecond / 1000;
  static Nanos periodic(std::uint64_t count, int hz) {
    return static_cast<Nanos>(count / static_cast<unsigned>(hz)) * kSecond +
           static_cast<Nanos>(count % static_cast<unsigned>(hz)) * kSecond / hz;
  }

  Settings settings_;
  KernelObserver& observer_;
  Pace* pace_ = nullptr;

  Nanos now_ = 0;
  Nanos kickedAt_ = 0;
  Nanos due_ = 0;  // the earliest of the two below and the events
  Nanos nextTick_ = 0;
  Nanos nextAux_ = 0;
  std::uint64_t ticks_ = 0;
  std::uint64_t auxTicks_ = 0;
  std::priority_queue<Event, std::vector<Event>, std::greater<>> events_;
  std::uint64_t eventOrder_ = 0;

  std::vector<std::unique_ptr<Task>> tasks_;
  std::vector<Task*> ready_;  // by priority, then in the order in which they became ready
  std::vector<Task*> timed_;
  std::vector<Task*> parked_;
  Task* current_ = nullptr;
  bool sliceEnded_ = false;

  std::unique_ptr<Fiber> interruptFiber_;
  bool inInterrupt_ = false;
  Nanos interruptTime_ = 0;
  struct {
    const char* name = "";
    int slot = 0;
    void (*routine)(u8) = nullptr;
    u8 argument = 0;
  } interrupt_;

  bool stopping_ = false;
  std::string fatal_;
  std::deque<os::MsgQ> queues_;
  std::deque<os::Semaphore> semaphores_;
};

}  // namespace headend
