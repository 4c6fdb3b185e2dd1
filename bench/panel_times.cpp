// How long the front panel takes from a key to its screen: in virtual time for a key pressed inside the
// chassis, and on the clock for a client of the management socket, on a headend that runs in real time. One
// line for each kind of screen. With a capture both channels carry its PSI, every table as often as it goes.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <future>
#include <numeric>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/card_times.h"
#include "client/chassis_services.h"
#include "client/udp_link.h"
#include "headend/jobs.h"
#include "protocol/panel.h"
#include "tests/headend/scratch.h"

namespace bench {
namespace {

using chassis::PanelKey;
using headend::Nanos;

constexpr int kKeys = 100;  // measured of each kind
constexpr Nanos kLook = 20'000;
constexpr Nanos kPatience = 2 * headend::kSecond;
constexpr Nanos kBetween = 20'000'000, kTick = 10'000'000;

struct Kind {
  const char* name;
  std::vector<PanelKey> before;  // from the previous kind's screen; for the first kind from the first screen
  std::vector<PanelKey> keys;    // each leads to another screen, in turn
};
const std::vector<Kind> kKinds = {
    {"an item further", {chassis::kKeyConfirm, chassis::kKeyDown, chassis::kKeyConfirm}, {chassis::kKeyDown}},
    {"a digit", {chassis::kKeyDown, chassis::kKeyConfirm}, {chassis::kKeyUp, chassis::kKeyDown}},
    {"an editor opened or left", {}, {chassis::kKeyCancel, chassis::kKeyConfirm}},
};

using Times = std::vector<double>;  // milliseconds

headend::Options managedCard(const std::filesystem::path& folder, const char* capture) {
  headend::Options options = oneCard(folder);
  options.manage = base::Address{.host = "127.0.0.1", .port = 0};
  if (capture == nullptr) return options;
  for (const int port : {1, 2}) {
    std::string load = fmt::format("psi load 1.{} {}", port, capture);
    for (const PsiType type : mpeg::kAllTables)
      load += fmt::format(" --interval {}=1", mpeg::tableName(type));
    options.jobs.push_back(headend::jobOf(load));
  }
  return options;
}

// Goes through the kinds; `screen` gives the text of the LCD, `press` presses a key, `wait` lets a time
// pass.
template <typename Screen, typename Press, typename Wait, typename Now>
std::vector<Times> measure(Screen screen, Press press, Wait wait, Now now) {
  const auto pressAndSee = [&](PanelKey key) {
    const auto before = screen();
    const Nanos begin = now();
    press(key);
    while (screen() == before) {
      if (now() - begin > kPatience) throw std::runtime_error(fmt::format("key {} brings no screen", +key));
      wait(kLook);
    }
    return static_cast<double>(now() - begin) / 1e6;
  };
  std::vector<Times> all;
  for (const Kind& kind : kKinds) {
    for (const PanelKey key : kind.before) pressAndSee(key);
    Times& times = all.emplace_back();
    for (int i = 0; i < kKeys; ++i) {
      wait(kBetween + kTick * i / kKeys);  // the keys are at all points of a tick
      times.push_back(pressAndSee(kind.keys[static_cast<std::size_t>(i) % kind.keys.size()]));
    }
  }
  for (int i = 0; i < 3; ++i) pressAndSee(chassis::kKeyCancel);  // back to the first screen
  return all;
}

std::vector<Times> inside(headend::Headend& headend) {
  headend::Kernel& kernel = headend.kernel;
  while (!headend.chassis.slot(0).initReturned) kernel.delay(1);
  kernel.delay(2 * kernel.settings().tickHz);  // the upload has also ended, and the first screen shows it
  return measure([&] { return headend.panel.shown().pixels; },
                 [&](PanelKey key) { headend.panel.keys.press(key); },
                 [&](Nanos time) { kernel.sleepUntil(kernel.now() + time); }, [&] { return kernel.now(); });
}

std::vector<Times> outside(const std::string& server) {
  client::UdpLink link(server);
  using Clock = std::chrono::steady_clock;
  return measure([&] { return client::readLcd(link).pixels; },
                 [&](PanelKey key) { client::pressKey(link, key); },
                 [](Nanos time) { std::this_thread::sleep_for(std::chrono::nanoseconds(time)); },
                 [] { return Nanos{Clock::now().time_since_epoch() / std::chrono::nanoseconds(1)}; });
}

std::string figures(const char* name, Times times) {
  std::sort(times.begin(), times.end());
  const double mean = std::accumulate(times.begin(), times.end(), 0.0) / static_cast<double>(times.size());
  return fmt::format(R"("{}": {{"mean": {:.2f}, "median": {:.2f}, "worst": {:.2f}}})", name, mean,
                     times[times.size() / 2], times.back());
}

}  // namespace

void panelTimes(const char* capture) {
  const test::Scratch scratch;
  headend::Headend headend(managedCard(scratch.path, capture));
  std::promise<std::vector<Times>> done;
  headend.kernel.spawn("tBench", kPriority, [&] {
    try {
      done.set_value(inside(headend));
    } catch (...) {
      done.set_exception(std::current_exception());
    }
  });
  std::atomic<bool> interrupted = false;
  const std::string server = headend.managementAddress();
  std::thread machine([&] { headend::run(headend, interrupted); });
  std::exception_ptr failure;
  try {
    const std::vector<Times> virtual_ms = done.get_future().get();
    const std::vector<Times> real_ms = outside(server);
    for (std::size_t i = 0; i < kKinds.size(); ++i) {
      fmt::print("{{\"screen\": \"{}\", {}, {}}}\n", kKinds[i].name, figures("virtual_ms", virtual_ms[i]),
                 figures("real_ms", real_ms[i]));
    }
  } catch (...) {
    failure = std::current_exception();
  }
  interrupted = true;
  machine.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace bench
