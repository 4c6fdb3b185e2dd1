// What a status pass of a card costs: register accesses and virtual time, with nothing to raise. One line,
// the same in every run, so it is a test: it fails when a pass raises something, or keeps the processor for
// longer than a tick of the system clock.
#include <fmt/format.h>

#include <atomic>
#include <stdexcept>

#include "bench/card_times.h"
#include "tests/headend/scratch.h"
#include "ui/qamStatus.h"

namespace bench {
namespace {

struct Cost {
  std::uint64_t accesses = 0;
  headend::Nanos time = 0;
};

Cost passCost(const std::filesystem::path& folder) {
  headend::Options options = oneCard(folder);
  options.duration = 10 * headend::kSecond;
  options.fast = true;
  headend::Headend headend(options);
  Cost cost;
  // Above all other tasks, so that the time is only that of the check.
  headend.kernel.spawn("tBench", 10, [&] {
    while (!headend.chassis.slot(0).initReturned) headend.kernel.delay(1);
    const headend::Nanos began = headend.kernel.now();
    const std::uint64_t before = headend.bus.accesses(0);
    qamStatusCheck(0);
    cost = {headend.bus.accesses(0) - before + MAX_QAM_OUT_NUM,
            headend.kernel.now() - began};  // + main board's
    headend.kernel.stop();
  });
  const std::atomic<bool> interrupted = false;
  if (headend::run(headend, interrupted) != headend::kExitDone || cost.time == 0)
    throw std::runtime_error("no pass was made");
  if (headend.alarms.events() != 0) throw std::runtime_error("the pass raised an alarm");
  const headend::Nanos tick = headend::kSecond / headend.kernel.settings().tickHz;
  if (cost.time > tick) throw std::runtime_error(fmt::format("the pass took {} ns", cost.time));
  return cost;
}

}  // namespace

void statusPass() {
  const test::Scratch scratch;
  const Cost cost = passCost(scratch.path);
  fmt::print(R"({{"accesses": {}, "virtual_ms": {:.3f}}})"
             "\n",
             cost.accesses, static_cast<double>(cost.time) / 1e6);
}

}  // namespace bench
