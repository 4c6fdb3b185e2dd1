// A kernel with nothing on it, whose tasks a test brings: as functions, or as scripts in words. What happens
// is told in one line, each event with its time in ms.
#pragma once

#include <fmt/format.h>

#include <cmath>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "headend/kernel/network.h"

namespace test {

using headend::Kernel;
using headend::kSecond;
using headend::Nanos;

constexpr Nanos kMs = 1'000'000;

// Kernel calls that take no time, so that what is measured is the clocks'.
inline Kernel::Settings freeCalls(int tickHz = 100, int auxHz = 1000) {
  Kernel::Settings settings{.tickHz = tickHz, .auxHz = auxHz, .costs = {}};
  settings.costs.kernelCall = 0;
  return settings;
}

using Story = std::vector<std::string>;

class Rig final : public headend::KernelObserver {
 public:
  explicit Rig(const Kernel::Settings& settings = {}) : kernel(settings, *this) {}

  void task(const char* name, int priority, std::function<void()> body) {
    kernel.spawn(name, priority, std::move(body));
  }
  void runUntil(Nanos end) {
    kernel.at(end, [this] { kernel.stop(); });
    kernel.run();
  }
  void note(std::string text) { story.push_back(std::move(text)); }
  void tell(const std::string& what) {
    note(fmt::format("{}@{}", what, static_cast<double>(kernel.now()) / 1e6));
  }

  void auxiliaryClock() override {
    if (onAux) onAux();
  }
  void systemClock() override {
    if (onTick) onTick();
  }
  void taskParked(const headend::Task& task) override { tell(task.name + " parked"); }
  void taskReleased(const headend::Task& task) override { tell(task.name + " released"); }
  void semaphoreLong(const os::Semaphore& semaphore, const headend::Task& task) override {
    tell(task.name + " waits for " + semaphore.name + " of " + semaphore.owner->name);
  }
  std::uint16_t peek(const volatile void* reg) override {
    return *static_cast<const volatile std::uint16_t*>(reg);
  }

  Story story;
  std::function<void()> onAux;
  std::function<void()> onTick;
  Kernel kernel;
};

// Tasks as scripts: "NAME PRIORITY [TIMES]: STEP; STEP; ...", or "at MS: STEP; ..." for an event. A step is a
// service of the kernel and its arguments; with a time to wait, in ticks of 10 ms, it waits so long, without
// one for ever. A step that fails is told, and what is received; all else only by "say".
class Scripts {
 public:
  explicit Scripts(const Kernel::Settings& settings = freeCalls()) : rig_(settings) {}

  // What happens in the first so many seconds.
  std::string play(const std::vector<std::string>& scripts, Nanos end = kSecond) {
    for (const std::string& script : scripts) add(script);
    rig_.runUntil(end);
    return fmt::format("{}", fmt::join(rig_.story, ", "));
  }

 private:
  using Words = std::vector<std::string>;

  static Words split(const std::string& text, char at) {
    Words parts;
    std::istringstream in(text);
    for (std::string part; std::getline(in >> std::ws, part, at);) parts.push_back(part);
    return parts;
  }
  void add(const std::string& script) {
    const std::size_t colon = script.find(':');
    const Words head = split(script.substr(0, colon), ' ');
    const int times = head.size() > 2 ? std::stoi(head[2]) : 1;
    const auto body = [this, times, name = head[0], steps = split(script.substr(colon + 1), ';')] {
      for (int i = 0; i < times; ++i) {
        for (const std::string& step : steps) perform(name, split(step, ' '));
      }
    };
    if (head[0] == "at") {
      rig_.kernel.at(nanos(head[1]), body);
    } else {
      rig_.kernel.spawn(head[0], std::stoi(head[1]), body);
    }
  }
  static Nanos nanos(const std::string& ms) { return std::llround(std::stod(ms) * 1e6); }

  void perform(const std::string& name, const Words& step) {
    if (step[0] == "say") return rig_.tell(name + " " + step[1]);
    if (call(step[0], {step.begin() + 1, step.end()}) == os::ERROR)
      rig_.tell(name + " " + step[0] + " fails");
  }
  int call(const std::string& service, const Words& words) {
    Kernel& k = rig_.kernel;
    const auto number = [&](std::size_t i, int other) {
      return i < words.size() ? std::stoi(words[i]) : other;
    };
    const auto ticks = [&](std::size_t i) { return number(i, os::WAIT_FOREVER); };
    if (service == "spend") return k.spend(nanos(words[0])), os::OK;
    if (service == "sleep") return k.sleepUntil(k.now() + nanos(words[0])), os::OK;
    if (service == "delay") return k.delay(ticks(0));
    if (service == "lock") return k.lock();
    if (service == "unlock") return k.unlock();
    if (service == "take") return k.take(semaphores_[words[0]], ticks(1));
    if (service == "give") return k.give(semaphores_[words[0]]);
    if (service == "send") return k.send(queue_, words[0], ticks(1));
    if (service == "receive") return receive(ticks(0), number(1, 16));
    if (service == "sendto") return socket_.send({.address = 0, .port = socket_.port()}, {1}), os::OK;
    if (service == "recvfrom") return socket_.receive(ticks(0)) ? os::OK : os::ERROR;
    if (service == "spawn")
      return k.spawn("child", number(0, 0), [this] { rig_.tell("child runs"); }), os::OK;
    if (service == "set") return register_ = static_cast<std::uint16_t>(number(0, 0)), os::OK;
    if (service == "poll") return poll(register_, nanos(words[0]));
    if (service == "look") return poll(otherRegister_, 0);
    if (service == "await") return poll(register_, 100 * kSecond, 1);
    throw std::logic_error("no service " + service);
  }
  int receive(int timeout, int room) {
    std::string buffer(static_cast<std::size_t>(room), '.');
    const std::string name = rig_.kernel.current()->name;
    const int length = rig_.kernel.receive(queue_, buffer, timeout);
    if (length >= 0) rig_.tell(name + " gets '" + buffer.substr(0, static_cast<std::size_t>(length)) + "'");
    return length;
  }
  // Reads the register each 10 us until it holds `until`, for `most` at most.
  int poll(const std::uint16_t& reg, Nanos most, int until = -1) {
    const Nanos end = rig_.kernel.now() + most;
    do {
      rig_.kernel.spend(10'000);
      rig_.kernel.notePolling(&reg, reg);
    } while (reg != until && rig_.kernel.now() < end);
    return os::OK;
  }

  Rig rig_;
  headend::Network network_{rig_.kernel};
  headend::UdpSocket socket_{network_, 1000};
  os::MsgQ* queue_ = rig_.kernel.createQueue(2, 4);
  std::map<std::string, os::Semaphore*> semaphores_ = {{"mutex", rig_.kernel.createMutex("mutex")},
                                                       {"binary", rig_.kernel.createBinary(false)},
                                                       {"given", rig_.kernel.createBinary(true)}};
  std::uint16_t register_ = 0, otherRegister_ = 0;
};

}  // namespace test
