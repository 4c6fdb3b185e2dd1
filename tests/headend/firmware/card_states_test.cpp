#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "tests/headend/headend_run.h"

namespace {

using namespace test;
using Json = nlohmann::json;

constexpr std::size_t kRecordSize = 203'132;

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

TEST(CardStates, AreToldAsTheyAre) {
  struct Row {
    const char* name;
    std::function<void(const fs::path& flash, headend::Options&)> spoil;
    const char* state;
    unsigned attempts;
    int exitCode;
  };
  const fs::path bin = "K717_QAM/qam.bin";
  const Row rows[] = {
      {"all well", [](const fs::path&, headend::Options&) {}, "running", 1, headend::kExitDone},
      {"no bitstream", [&](const fs::path& flash, auto&) { fs::remove(flash / bin); }, "no_bitstream", 0,
       headend::kExitFailed},
      {"an empty one", [&](const fs::path& flash, auto&) { fs::resize_file(flash / bin, 0); }, "no_bitstream",
       0, headend::kExitFailed},
      {"a folder in its place",
       [&](const fs::path& flash, auto&) { fs::remove(flash / bin), fs::create_directory(flash / bin); },
       "no_bitstream", 0, headend::kExitFailed},
      {"too large for the heap", [](const fs::path&, headend::Options& o) { o.heapBytes = 300'000; },
       "no_bitstream", 0, headend::kExitFailed},
      {"a cut one", [&](const fs::path& flash, auto&) { fs::resize_file(flash / bin, 20'000); },
       "config_error", 10, headend::kExitFailed},
      {"a cut one, but any will do",
       [&](const fs::path& flash, headend::Options& o) {
         fs::resize_file(flash / bin, 20'000);
         o.anyBitstream = true;
       },
       "running", 1, headend::kExitDone},
      {"too short a run", [](const fs::path&, headend::Options& o) { o.duration = 200'000'000; }, "starting",
       1, headend::kExitFailed},
      {"no memory at all", [](const fs::path&, headend::Options& o) { o.heapBytes = 10; }, "not_registered",
       0, headend::kExitFailed},
      {"ticks of 60 Hz", [](const fs::path&, headend::Options& o) { o.kernel.tickHz = 60; }, "running", 1,
       headend::kExitDone},
      {"a slow bus", [](const fs::path&, headend::Options& o) { o.kernel.costs.busAccess = 1000; }, "running",
       1, headend::kExitDone},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Scratch scratch;
    headend::initFlash(scratch.path / "flash");
    auto options = fastOptions(scratch.path, 5 * kSecond);
    row.spoil(scratch.path / "flash", options);
    const Json report = powerUp(options);
    const Json& card = report["cards"][0];
    EXPECT_EQ(card["state"], row.state);
    EXPECT_EQ(card["fpga_attempts"], row.attempts);
    EXPECT_EQ(report["exit"], row.exitCode);
    EXPECT_EQ(report["protocol_violations"], Json::object());
    EXPECT_EQ(report["virtual_seconds"], static_cast<double>(*options.duration) / 1e9);
    EXPECT_EQ(card["lcd"][0] == "Loading Card0", row.attempts == 10) << card["lcd"];
    EXPECT_EQ(card["lcd"][3] == "Config Error", row.attempts == 10);
    EXPECT_EQ(card["startup_ms"].is_null(),
              row.state == std::string("starting") || row.state == std::string("not_registered"));
  }
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

TEST(ParameterFiles, WhatIsOddAboutThemIsSaidBeforeTheStart) {
  struct Row {
    const char* name;
    std::function<void(Bytes&)> spoil;
    const char* warning;
    bool saved;  // with defaults, once the card is in the list
  };
  const Row rows[] = {
      {"right", [](Bytes&) {}, "", false},
      {"short", [](Bytes& r) { r.resize(1000); }, "is short: 1000 of 203132", false},
      {"one byte short", [](Bytes& r) { r.pop_back(); }, "is short: 203131 of 203132", false},
      {"of slot 3", [](Bytes& r) { r[1] = 2; }, "made for slot 3", false},
      {"7 bytes", [](Bytes& r) { r.resize(7); }, "is short: 7 of 203132", true},
      {"another card's", [](Bytes& r) { r[0] = 26; }, "", true},
      {"another version's", [](Bytes& r) { r[2] = 99; }, "", true},
  };
  const Scratch scratch;
  headend::initFlash(scratch.path / "flash");
  const fs::path file = scratch.path / "flash" / "para" / "card1.dat";
  const auto options = fastOptions(scratch.path, kSecond);
  // A save that is asked for before the card is in the list is done when it gets there.
  EXPECT_EQ(powerUp(options)["cards"][0]["saves"], 1);
  const Bytes defaults = readFile(file);
  ASSERT_EQ(defaults.size(), kRecordSize);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Bytes record = defaults;
    row.spoil(record);
    writeFile(file, record);
    const Json report = powerUp(options);
    EXPECT_EQ(report["exit"], headend::kExitDone);
    EXPECT_EQ(report["cards"][0]["saves"], row.saved ? 1 : 0);
    EXPECT_EQ(readFile(file), row.saved ? defaults : record);
    const std::string log = readText(scratch.path / "log");
    const std::string before = log.substr(0, log.find("fpga_ncfg"));
    const std::string said = *row.warning == 0 ? "card1.dat " : row.warning;
    EXPECT_EQ(before.find(said) != std::string::npos, *row.warning != 0) << log;
  }
}

TEST(Saving, ThatFailsIsReportedAndEndsWithAFailure) {
  const Scratch scratch;
  headend::initFlash(scratch.path / "flash");
  fs::remove_all(scratch.path / "flash" / "para");
  writeFile(scratch.path / "flash" / "para", Bytes{1});  // where the folder should be
  const Json report = powerUp(fastOptions(scratch.path, kSecond));
  EXPECT_EQ(report["cards"][0]["state"], "running");
  EXPECT_EQ(report["exit"], headend::kExitFailed);
  EXPECT_NE(readText(scratch.path / "log").find("cannot save"), std::string::npos);
}

TEST(Headend, TwoEqualRunsGiveEqualReportsOutputsAndFlash) {
  std::string seen[2];
  for (std::string& all : seen) {
    const Scratch scratch;
    headend::initFlash(scratch.path / "flash");
    auto options = fastOptions(scratch.path, 3 * kSecond, {0, 4});
    options.psi.push_back({.channel = {4, 1}, .file = QAM_SAMPLES "/psi-small.ts", .at = kSecond});
    options.outputs[{4, 1}] = scratch.path / "out";
    all = inChild([&] {
      Headend headend(options);
      run(headend);
      return headend::reportText(headend);
    });
    EXPECT_NE(all.find("\"running\""), std::string::npos);
    for (const char* file : {"out", "log", "flash/para/card1.dat", "flash/para/card5.dat"}) {
      const std::string content = readText(scratch.path / file);
      EXPECT_FALSE(content.empty()) << file;
      all += content;
    }
  }
  EXPECT_TRUE(seen[0] == seen[1]);
}

}  // namespace
