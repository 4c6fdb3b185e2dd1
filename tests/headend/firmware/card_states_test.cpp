#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tests/headend/headend_run.h"

namespace test {
namespace {

// The output's clock dies: the send task polls its ready register for good. The other channel and the other
// card send on; and so does the task when the clock is back.
TEST(CardStates, ASendTaskWithoutAReadyOutputHangsAloneAndIsNamedOnce) {
  for (const bool comesBack : {false, true}) {
    const std::string end = inChild([&] {
      const Scratch scratch;
      headend::initFlash(scratch.path / "flash");
      auto options = fastOptions(scratch.path, 10 * kSecond, {0, 2});
      for (const std::string channel : {"1.1", "3.1", "3.2"})
        options.jobs.push_back(headend::jobOf("psi load " + channel + " " QAM_SAMPLES "/psi-small.ts"));
      Headend headend(options);
      headend::Kernel& kernel = headend.kernel;
      headend::Multiplexer& output = headend.card(2).output(1);
      kernel.at(3 * kSecond, [&] { output.stop(kernel.now()); });
      if (comesBack) kernel.at(8 * kSecond, [&] { output.start(kernel.now(), output.rate()); });
      const int exitCode = run(headend);
      EXPECT_EQ(headend.state(0), protocol::CardState::kRunning);
      for (const int slot : {0, 2}) EXPECT_GE(headend.card(slot).output(0).counts().psi, 100U);
      const std::string log = readText(scratch.path / "log");
      EXPECT_NE(log.find("has polled"), std::string::npos);
      EXPECT_EQ(log.find("has polled"), log.rfind("has polled"));
      std::string hung;
      for (const headend::Observation::ParkedTask& task : headend.observation.parkedTasks()) {
        EXPECT_TRUE(task.since >= 3 * kSecond && task.since <= 6 * kSecond) << task.since;
        if (task.still) hung += task.task + " at " + task.reg;
      }
      EXPECT_EQ(headend.state(2), comesBack ? protocol::CardState::kRunning : protocol::CardState::kHung);
      return fmt::format("{}, exit code {}", hung, exitCode);
    });
    EXPECT_EQ(end, comesBack ? ", exit code 0" : "qam2PSISend1 at slot 3 PsiRdy1, exit code 1");
  }
}

}  // namespace
}  // namespace test
