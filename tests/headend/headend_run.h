// A whole headend in this process on a flash folder of its own, as quick as it goes.
// One per process where a card is in it: the card's module keeps its state from power-up to power-down. Tests
// that need several run each in a child.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "headend/jobs.h"
#include "headend/report.h"
#include "tests/headend/scratch.h"

namespace test {

using headend::Headend;
using headend::kSecond;
using headend::Nanos;

inline headend::Options fastOptions(const fs::path& folder, Nanos duration, std::vector<int> slots = {0}) {
  headend::Options options;
  options.flash = folder / "flash";
  options.slots = std::move(slots);
  options.duration = duration;
  options.fast = true;
  options.log = folder / "log";
  return options;
}

inline int run(Headend& headend) {
  const std::atomic<bool> interrupted = false;
  return headend::run(headend, interrupted);
}

// A headend that a body of the test's own drives, in a task as a chassis would, once the card in slot 1 runs.
class Driven {
 public:
  explicit Driven(const std::function<void(headend::Options&)>& prepare = {}) {
    headend::initFlash(scratch_.path / "flash");
    auto options = fastOptions(scratch_.path, 100'000 * kSecond);
    if (prepare) prepare(options);
    headend_ = std::make_unique<Headend>(options);
    headend::provideStatus(*headend_);
  }
  // Ends with neither a violation of a protocol nor a failed check.
  void drive(std::function<void()> body) {
    headend_->kernel.spawn("tTest", 240, [this, body = std::move(body)] {
      while (!headend_->chassis.slot(0).initReturned) headend_->kernel.delay(1);
      headend_->kernel.delay(1);
      body();
      headend_->kernel.stop();
    });
    run(*headend_);
    EXPECT_TRUE(headend_->violations.counts().empty()) << headend_->violations.counts().begin()->first;
    EXPECT_TRUE(headend_->observation.failedChecks().empty());
  }
  Headend& headend() { return *headend_; }
  headend::CardFpga& card() { return headend_->card(0); }
  headend::CardBoard& board() { return card().board(); }
  Nanos now() const { return headend_->kernel.now(); }

 private:
  Scratch scratch_;
  std::unique_ptr<Headend> headend_;
};

// What `body` returns in a process of its own; its failed expectations come back too.
inline std::string inChild(const std::function<std::string()>& body) {
  const Scratch scratch;
  const pid_t child = ::fork();
  if (child == 0) {
    const bool failedBefore = testing::Test::HasFailure();
    std::string text = body();
    if (testing::Test::HasFailure() && !failedBefore) text += " (expectations failed in the child)";
    (std::ofstream(scratch.path / "text") << text).flush();
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return status == 0 ? readText(scratch.path / "text") : "the child died of " + std::to_string(status);
}

}  // namespace test
