#include "headend/kernel/kernel.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace headend {
namespace {

// By priority; among equals last or first.
void insert(std::vector<Task*>& list, Task& task, bool behindEquals) {
  const int from = task.priority + (behindEquals ? 1 : 0);
  list.insert(std::ranges::find_if(list, [&](const Task* other) { return other->priority >= from; }), &task);
}

std::size_t copyWhatFits(std::span<const char> message, std::span<char> buffer) {
  const std::size_t length = std::min(message.size(), buffer.size());
  std::copy_n(message.begin(), length, buffer.begin());
  return length;
}

}  // namespace

Kernel::Kernel(const Settings& settings, KernelObserver& observer)
    : settings_(settings), observer_(observer) {
  nextTick_ = periodic(1, settings_.tickHz);
  nextAux_ = periodic(1, settings_.auxHz);
  findDue();
  interruptFiber_ = std::make_unique<Fiber>([this] {
    for (;;) {
      interrupt_.routine(interrupt_.argument);
      interruptFiber_->suspend();
    }
  });
}

Kernel::~Kernel() = default;

// ---- Time ----

void Kernel::findDue() {
  due_ = std::min(nextTick_, nextAux_);
  if (!events_.empty()) due_ = std::min(due_, events_.top().when);
}

void Kernel::at(Nanos when, std::function<void()> action) {
  events_.push({std::max(when, now_), eventOrder_++, std::move(action)});
  findDue();
}

// The cost just charged reaches past something that is due: take it back and spend it piece by piece.
void Kernel::overrun(Nanos cost) {
  if (inInterrupt_) return;  // due events run after the routine has returned
  now_ -= cost;
  Nanos rest = cost;
  while (now_ + rest >= due_) {
    const Nanos step = std::max<Nanos>(0, due_ - now_);
    now_ += step;
    rest -= step;
    dispatchDue();
    reschedule();
  }
  now_ += rest;
}

void Kernel::dispatchDue() {
  while (due_ <= now_ && !stopping_) {
    if (pace_ != nullptr) pace_->waitUntil(due_);
    if (due_ == nextTick_) {
      nextTick_ = periodic(++ticks_ + 1, settings_.tickHz);
      findDue();
      systemTick();
    } else if (due_ == nextAux_) {
      nextAux_ = periodic(++auxTicks_ + 1, settings_.auxHz);
      findDue();
      observer_.auxiliaryClock();
    } else {
      const std::function<void()> action = events_.top().action;
      events_.pop();
      findDue();
      action();
    }
  }
}

void Kernel::systemTick() {
  sliceEnded_ = true;
  for (Task* task : std::vector(timed_)) {
    if (task->wakeTick <= ticks_) wake(*task, true);  // removes it from the list
  }
  if (!parked_.empty()) releaseParked();
  if (current_ != nullptr) countStretch();
  reportLongWaits();
  observer_.systemClock();
}

// ---- Interrupts ----

void Kernel::interrupt(const char* name, int slot, void (*routine)(u8), u8 argument) {
  if (stopping_) return;  // a refused routine stops at its call and must not continue
  interrupt_ = {name, slot, routine, argument};
  inInterrupt_ = true;
  const Nanos begin = now_;
  interruptFiber_->resume();
  interruptTime_ += now_ - begin;
  inInterrupt_ = false;
}

void Kernel::refuseInInterrupt(const char* service) {
  fatal_ = fmt::format(
      "interrupt routine {} of slot {} called {}: an interrupt routine may not wait, allocate, use a file or "
      "touch a register",
      interrupt_.name, interrupt_.slot + 1, service);
  stopping_ = true;
  interruptFiber_->suspend();  // permanently: the run ends
}

// ---- Scheduling ----

void Kernel::run() {
  while (!stopping_) {
    if (ready_.empty()) {
      idle();
      continue;
    }
    current_ = ready_.front();
    ready_.erase(ready_.begin());
    current_->state = Task::State::kRunning;
    current_->runningSince = now_;
    sliceEnded_ = false;
    current_->stretch.resume(now_, kickedAt_);
    current_->fiber->resume();
    countStretch();
    if (current_->state != Task::State::kReady) current_->stretch.end();
    current_->cpuTime += now_ - current_->runningSince;
    if (current_->fiber->finished()) {
      current_->state = Task::State::kFinished;
      current_->fiber.reset();
    }
    current_ = nullptr;
  }
}

// Until something is due, or what came from outside has made a task ready.
void Kernel::idle() {
  const Nanos reached = pace_ != nullptr ? pace_->idleUntil(due_) : due_;
  now_ = std::max(now_, reached);
  dispatchDue();
}

Nanos Kernel::cpuTime(const Task& task) const {
  return task.cpuTime + (&task == current_ ? now_ - task.runningSince : 0);
}

void Kernel::leave() {
  current_->fiber->suspend();
}

// Gives the processor to a ready task that has precedence over the running one.
void Kernel::reschedule() {
  if (current_ == nullptr) return;
  if (stopping_) leave();
  if (ready_.empty() || current_->lockDepth > 0) return;
  const int best = ready_.front()->priority;
  // A task's slice also ends if a higher task preempts it; otherwise tasks of equal priority would wait
  // forever if a higher one wakes at each tick.
  if (best < current_->priority || (sliceEnded_ && best == current_->priority)) {
    makeReady(*current_, sliceEnded_);
    leave();
  }
}

void Kernel::makeReady(Task& task, bool behindEquals) {
  task.state = Task::State::kReady;
  insert(ready_, task, behindEquals);
}

void Kernel::wake(Task& task, bool timedOut) {
  if (task.timed) std::erase(timed_, &task);
  if (task.waitList != nullptr) std::erase(*task.waitList, &task);
  task.timed = false;
  task.waitList = nullptr;
  task.timedOut = timedOut;
  makeReady(task);
}

void Kernel::waitForTick(Task& task, int ticks) {
  task.timed = true;
  task.wakeTick = ticks_ + static_cast<std::uint64_t>(ticks);
  timed_.push_back(&task);
}

bool Kernel::waitOn(std::vector<Task*>& list, int timeout) {
  Task& task = *current_;
  insert(list, task, true);
  task.waitList = &list;
  if (timeout != os::WAIT_FOREVER) waitForTick(task, timeout);
  task.state = Task::State::kWaiting;
  leave();
  return !task.timedOut;
}

void Kernel::wakeFirst(std::vector<Task*>& list) {
  if (!list.empty()) wake(*list.front(), false);
}

void Kernel::sleepUntil(Nanos when) {
  requireTask("sleepUntil");
  notePollingEnds();
  if (when <= now_) return;
  Task& task = *current_;
  at(when, [this, &task] { makeReady(task); });
  task.state = Task::State::kWaiting;
  leave();
}

// ---- Tasks that poll without an end ----

void Kernel::park() {
  Task& task = *current_;
  leaveOutPoll();
  task.state = Task::State::kParked;
  parked_.push_back(&task);
  observer_.taskParked(task);
  leave();
}

void Kernel::releaseParked() {
  const auto changed = [this](Task* task) {
    if (observer_.peek(task->polled) == task->polledValue) return false;
    task->polled = nullptr;
    makeReady(*task);
    observer_.taskReleased(*task);
    return true;
  };
  std::erase_if(parked_, changed);
}

// ---- The watchdog ----

// The running task's stretch is counted until now.
void Kernel::countStretch() {
  if (current_->polled != nullptr && now_ - current_->polledSince >= kLongPoll &&
      observer_.onlyWatchdogEnds(current_->polled))
    return;  // leaveOutPoll() counts it
  Task::Stretch& stretch = current_->stretch;
  stretch.count(now_, kickedAt_);
  if (settings_.watchdog == 0 || stretch.time <= settings_.watchdog || std::exchange(stretch.told, true))
    return;
  observer_.watchdogLate(*current_);
}

// A long poll of the running task ends.
void Kernel::leaveOutPoll() {
  if (!observer_.onlyWatchdogEnds(current_->polled)) return;
  Task::Stretch& stretch = current_->stretch;
  stretch.longestPoll = std::max(stretch.longestPoll, now_ - current_->polledSince);
  if (stretch.countedTo < current_->polledSince) stretch.count(current_->polledSince, kickedAt_);
  stretch.resume(now_, kickedAt_);
}

// ---- Long waits for a semaphore ----

void Kernel::reportLongWaits() {
  constexpr Nanos kLong = 10 * kSecond;
  for (const os::Semaphore& semaphore : semaphores_) {
    for (Task* task : semaphore.waiters) {
      if (task->waitTold || now_ - task->waitsSince <= kLong) continue;
      task->waitTold = true;
      observer_.semaphoreLong(semaphore, *task);
    }
  }
}

// ---- Services ----

int Kernel::spawn(std::string name, int priority, std::function<void()> body, int slot) {
  requireTask("taskSpawn");
  auto task = std::make_unique<Task>();
  task->id = static_cast<int>(tasks_.size()) + 1;
  task->name = std::move(name);
  task->priority = priority;
  task->slot = slot >= 0 ? slot : current_ != nullptr ? current_->slot : -1;
  task->fiber = std::make_unique<Fiber>(std::move(body));
  const int id = task->id;
  makeReady(*task);
  tasks_.push_back(std::move(task));
  if (current_ != nullptr) {
    notePollingEnds();
    spend(settings_.costs.kernelCall);
    reschedule();
  }
  return id;
}

int Kernel::delay(int ticks) {
  charge("taskDelay", settings_.costs.kernelCall);
  Task& task = *current_;
  if (ticks <= 0) {
    makeReady(task);
  } else {
    waitForTick(task, ticks);
    task.state = Task::State::kWaiting;
  }
  leave();
  return os::OK;
}

int Kernel::lock() {
  charge("taskLock", settings_.costs.kernelCall);
  ++current_->lockDepth;
  return os::OK;
}

int Kernel::unlock() {
  requireTask("taskUnlock");
  notePollingEnds();
  if (current_->lockDepth > 0) --current_->lockDepth;
  spend(settings_.costs.kernelCall);
  reschedule();
  return os::OK;
}

os::MsgQ* Kernel::createQueue(int maxMessages, int maxLength) {
  charge("msgQCreate", settings_.costs.kernelCall);
  if (maxMessages <= 0 || maxLength < 0) return nullptr;
  os::MsgQ& queue = queues_.emplace_back(os::MsgQ{.maxMessages = static_cast<std::size_t>(maxMessages),
                                                  .maxLength = static_cast<std::size_t>(maxLength)});
  observer_.queueCreated(&queue, current_);
  return &queue;
}

int Kernel::send(os::MsgQ* queue, std::span<const char> message, int timeout) {
  if (timeout != os::NO_WAIT) requireTask("msgQSend with a time to wait");
  if (!inInterrupt_) notePollingEnds();
  spend(settings_.costs.kernelCall);
  if (queue == nullptr || message.size() > queue->maxLength) return os::ERROR;
  while (queue->messages.size() >= queue->maxMessages) {
    if (timeout == os::NO_WAIT || !waitOn(queue->senders, timeout)) return os::ERROR;
  }
  observer_.messageSent(queue, message);
  if (queue->receivers.empty()) {
    queue->messages.emplace_back(message.begin(), message.end());
  } else {
    Task& receiver = *queue->receivers.front();
    receiver.receivedLength = copyWhatFits(message, receiver.receiveInto);
    wake(receiver, false);
    if (!inInterrupt_) reschedule();
  }
  return os::OK;
}

int Kernel::receive(os::MsgQ* queue, std::span<char> buffer, int timeout) {
  charge("msgQReceive", settings_.costs.kernelCall);
  if (queue == nullptr) return os::ERROR;
  if (timeout != os::NO_WAIT) readyForWork();
  if (queue->messages.empty()) {
    if (timeout == os::NO_WAIT) return os::ERROR;
    current_->receiveInto = buffer;
    if (!waitOn(queue->receivers, timeout)) return os::ERROR;
    return static_cast<int>(current_->receivedLength);
  }
  const std::vector<char> message = std::move(queue->messages.front());
  queue->messages.pop_front();
  const std::size_t length = copyWhatFits(message, buffer);
  wakeFirst(queue->senders);
  reschedule();
  return static_cast<int>(length);
}

int Kernel::take(os::Semaphore* semaphore, int timeout) {
  charge("semTake", settings_.costs.kernelCall);
  if (semaphore == nullptr) return os::ERROR;
  if (semaphore->mutex && semaphore->owner == current_) {
    ++semaphore->depth;
    return os::OK;
  }
  if (!semaphore->available) {
    current_->waitsSince = now_;
    current_->waitTold = false;
    if (timeout == os::NO_WAIT || !waitOn(semaphore->waiters, timeout)) return os::ERROR;
    return os::OK;  // the giving task has passed it on
  }
  semaphore->available = false;
  semaphore->owner = current_;
  semaphore->depth = 1;
  return os::OK;
}

int Kernel::give(os::Semaphore* semaphore) {
  if (!inInterrupt_) notePollingEnds();
  spend(settings_.costs.kernelCall);
  if (semaphore == nullptr) return os::ERROR;
  if (semaphore->mutex) {
    requireTask("semGive of a mutex");
    if (semaphore->owner != current_) return os::ERROR;
    if (--semaphore->depth > 0) return os::OK;
  }
  if (semaphore->waiters.empty()) {
    semaphore->available = true;
    semaphore->owner = nullptr;
  } else {
    semaphore->owner = semaphore->waiters.front();
    semaphore->depth = 1;
    wakeFirst(semaphore->waiters);
    if (!inInterrupt_) reschedule();
  }
  return os::OK;
}

}  // namespace headend
