#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/headend/headend_run.h"

namespace test {
namespace {
using Json = nlohmann::json;

// A power-up in a child: its report, with the exit code added.
Json powerUp(const headend::Options& options, const std::function<void(Headend&)>& prepare = {}) {
  return Json::parse(inChild([&] {
    Headend headend(options);
    if (prepare) prepare(headend);
    const int exitCode = run(headend);
    Json report = Json::parse(headend::reportText(headend));
    report["exit"] = exitCode;
    return report.dump();
  }));
}

// The output's clock dies: the send task polls its ready register for good. The other channel and the other
// card go on; and so does the task when the clock is back.
TEST(CardStates, ASlotThatHangsIsNamedAndTakesNobodyWithIt) {
  const Scratch scratch;
  headend::initFlash(scratch.path / "flash");
  auto options = fastOptions(scratch.path, 10 * kSecond, {0, 2});
  for (const u16 slot : std::initializer_list<u16>{0, 2}) {
    for (const u32 port : {0U, 1U}) {
      options.psi.push_back({.channel = {slot, port}, .file = QAM_SAMPLES "/psi-small.ts", .at = 0});
    }
  }
  for (const bool comesBack : {false, true}) {
    SCOPED_TRACE(comesBack);
    fs::remove_all(scratch.path / "flash" / "para");
    const Json report = powerUp(options, [&](Headend& headend) {
      headend::Kernel& kernel = headend.kernel();
      headend::Multiplexer& output = headend.card(2).output(1);
      kernel.at(3 * kSecond, [&] { output.stop(kernel.now()); });
      if (comesBack) kernel.at(8 * kSecond, [&] { output.start(kernel.now(), output.rate()); });
    });
    const Json& well = report["cards"][0];
    const Json& ill = report["cards"][1];
    EXPECT_EQ(well["state"], "running");
    EXPECT_EQ(ill["slot"], 3);
    EXPECT_EQ(ill["state"], comesBack ? "running" : "hung");
    EXPECT_EQ(report["exit"], comesBack ? headend::kExitDone : headend::kExitFailed);
    for (const Json* channel : {&well["channels"][0], &well["channels"][1], &ill["channels"][0]}) {
      const Json& pat = (*channel)["tables"]["PAT"];
      EXPECT_GE((*channel)["packets"]["psi"], 100);
      EXPECT_EQ(pat["interval_ticks"]["min"], 300);
      EXPECT_EQ(pat["interval_ticks"]["max"], 300);
    }
    if (!comesBack) {
      EXPECT_EQ(ill["hung"]["task"], "qam2PSISend1");
      EXPECT_EQ(ill["hung"]["register"], "slot 3 PsiRdy1");
      EXPECT_GE(ill["hung"]["since_seconds"], 3);
      EXPECT_LE(ill["hung"]["since_seconds"], 6);
    }
    const std::string log = readText(scratch.path / "log");
    const std::size_t first = log.find("has polled");
    EXPECT_NE(first, std::string::npos);
    EXPECT_EQ(log.find("has polled", first + 1), std::string::npos);
  }
}

}  // namespace
}  // namespace test
