// The program itself against a card behind a socket: what it does, what it says, its exit codes.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>

#include "client/card_settings.h"
#include "client/psi_capture.h"
#include "tests/client/fake_card.h"
#include "tests/client/fake_server.h"
#include "tests/client/program.h"
#include "tests/client/streams.h"
#include "tools/psi_decode.h"

namespace client {
namespace {

using test::expect;
using test::expectWrongCalls;
using test::Outcome;

class Qamctl : public ::testing::Test {
 public:
  Qamctl() : server_([this](const Request& r) { return std::vector<Bytes>{encode(answer(r))}; }) {
    std::string pattern = ::testing::TempDir() + "qamctlXXXXXX";
    folder_ = mkdtemp(pattern.data());
  }
  ~Qamctl() override { std::filesystem::remove_all(folder_); }

  Outcome run(const std::string& arguments) const {
    return runWith("--server " + server_.address() + " " + arguments);
  }

  static Outcome runWith(const std::string& arguments) {
    return test::runProgram(std::string(QAMCTL) + " " + arguments);
  }

  std::string file(const char* name) const { return folder_ + "/" + name; }
  bool folderIsEmpty() const { return std::filesystem::is_empty(folder_); }

  test::FakeCard card_;
  std::string status_ = R"({"aux_hz": 500, "cards": [{"slot": 1, "state": "running"}]})";

 private:
  Reply answer(const Request& r) {
    if (r.operation != Operation::kStatus) return card_.handle(r);
    return {.operation = 3,
            .sequence = r.sequence,
            .variable = r.variable,
            .slot = r.slot,
            .port = r.port,
            .result = 0,
            .data = Bytes(status_.begin(), status_.end())};
  }

  std::string folder_;
  test::FakeServer server_;
};

TEST_F(Qamctl, LoadsShowsSavesAndClears) {
  expect(run("psi load 1.2 " + test::sample("psi-eit.ts") + " --interval PAT=50 --interval CAT=9"), 0, "EIT");
  EXPECT_EQ(card_.saved[1].interval[0], 50u);
  EXPECT_EQ(card_.saved[1].interval[7], 9u);
  const Outcome shown = run("psi show 1.2 --save " + file("saved.ts"));
  expect(shown, 0, "service 5: \"Service 5\" (Provider)");
  expect(shown, 0, "50 ticks (100 ms)");
  EXPECT_EQ(readCapture(std::filesystem::path(file("saved.ts"))).sections,
            readCapture(std::filesystem::path(test::sample("psi-eit.ts"))).sections);
  expect(run("psi show 1.2 --json"), 0, "\"interval_ms\": 100.0");
  expect(run("psi interval 1.1 SDT_C=20 PAT=3"), 0, "");
  EXPECT_EQ(card_.saved[0].interval, (std::array<u32, 8>{3, 300, 20, 300, 300, 300, 300, 300}));
  expect(run("psi clear 1.2"), 0, "");
  EXPECT_TRUE(card_.saved[1].store.empty());
  card_.ports[1].store.resize(300, {.pid = 0x11, .type = 3, .packet = {}});  // more than requests reach
  expect(run("psi show 1.2"), 0, "38");
  expect(run("psi show 1.2 --save " + file("beyond.ts")), 1, "38");
  EXPECT_FALSE(std::filesystem::exists(file("beyond.ts")));
  expect(run("status"), 0, "slot 1: running");
  expect(run("status --json"), 0, "\"aux_hz\": 500");
}

TEST_F(Qamctl, FailsWithoutChangingAnything) {
  card_.ports[1].locked = true;
  const std::string small = test::sample("psi-small.ts");
  struct Row {
    std::string arguments;
    const char* part;
  };
  const Row rows[] = {
      {"psi load 1.1 " + test::sample("not-a-stream.ts"), "no transport stream"},
      {"psi load 1.1 " + file("absent.ts"), "No such file"},
      {"psi load 1.1 " + test::sample("psi-too-many.ts"), "534 packets"},
      {"psi load 1.1 " + test::sample("psi-pid-1ff.ts"), "0x01ff"},
      {"psi load 2.1 " + small, "no card in this slot"},
      {"psi load 1.2 " + small, "--force"},
      {"psi clear 1.2", "--force"},
  };
  for (const Row& row : rows) expect(run(row.arguments), 1, row.part);
  for (const Request& r : card_.log) EXPECT_EQ(r.operation, Operation::kRead);
  expect(run("psi load 1.2 --force " + small), 0, "8 packets");
  std::string closed;
  {
    closed = test::FakeServer([](const Request&) { return std::vector<Bytes>{}; }).address();
  }
  expect(runWith("--server " + closed + " status"), 1, closed + ": nothing listens");
  EXPECT_EQ(run("psi show 1.2 >/dev/full").code, 1);
}

TEST_F(Qamctl, ReadsAndSetsVariables) {
  for (const CardVariable& v : cardVariables()) {
    card_.variables[static_cast<u16>(v.id)] = encodeValue(VariableValue(0U));
    if (v.kind == VariableKind::kText)
      card_.variables[static_cast<u16>(v.id)] = {1, 'V', 0x1B, '[', '7', 'm'};
  }
  card_.variables[30] = {0, 0, 8, 0x74, 0x10};
  card_.variables[47] = {0, 0, 0, 0, 251};
  expect(runWith("var list"), 0, "950 to 1150 in steps of 5");  // no server there
  expect(run("var get 1 rfreq 47"), 0, "30  rfreq            554000 kHz\n47  temperature1     -5 deg C\n");
  const Outcome all = run("var get 1 --json");
  EXPECT_EQ(tools::Json::parse(all.text).size(), cardVariables().size());
  expect(all, 0, R"("value": -5)");
  EXPECT_EQ(all.text.find('\x1B'), std::string::npos);
  EXPECT_EQ(run("var get 1").text.find('\x1B'), std::string::npos);
  card_.log.clear();
  expect(run("var set 1 rfreq 600000"), 0, "");
  expect(run("var set 1 32 6900"), 0, "clock table");
  EXPECT_EQ(card_.variables[30], (Bytes{0, 0, 9, 0x27, 0xC0}));
  EXPECT_EQ(card_.variables[32], (Bytes{0, 0, 0, 0x1A, 0xF4}));
  EXPECT_EQ(card_.log.size(), 2U);

  card_.variables.erase(38);  // what cannot be read leaves no half of an answer
  const Outcome broken = run("var get 1 30 38");
  expect(broken, 1, "reading rfreq2 of the card in slot 1 was refused");
  EXPECT_EQ(broken.text.find("kHz"), std::string::npos);
  expect(run("var set 2 rfreq 600000"), 1, "no card in this slot");
}

TEST_F(Qamctl, ShowsWhatGoesOutAtTheConnectors) {
  status_ = R"({"cards": [
    {"slot": 1, "channels": [
      {"rf": {"verdict": "on air", "on_air": true, "why": "", "frequency_khz": 554006.25, "level_dbuv": 100.5,
              "symbol_rate_kbd": 6875, "clock_kbd": 6875.0, "constellation": "64-QAM", "bit_rate": 38014705.9}},
      {"rf": {"verdict": "faulty", "on_air": false, "why": "no\u001b clock", "frequency_khz": null,
              "level_dbuv": 99, "symbol_rate_kbd": 6900, "clock_kbd": null, "constellation": null,
              "bit_rate": 0}}]},
    {"slot": 3, "channels": [{"rf": {"verdict": "off"}}, {}, 5]},
    {"slot": 4}, 7]})";
  const Outcome all = run("rf");
  expect(all, 0, "1.1  on air    554.0063  100.5   64-QAM  6875   6875.000  38014706\n1.2 ");
  expect(all, 0,
         "1.2  faulty           -   99.0        -  6900          -         0\n     no clock\n3.1  off");
  expect(run("rf 3"), 0, "3.1  off");
  EXPECT_EQ(run("rf 3").text.find("1.1"), std::string::npos);
  const auto json = tools::Json::parse(run("rf --json").text);
  ASSERT_EQ(json.size(), 3U);
  EXPECT_EQ(json[1]["slot"], 1);
  EXPECT_EQ(json[1]["channel"], 2);
  EXPECT_EQ(json[1]["clock_kbd"], nullptr);
  EXPECT_EQ(json[2]["slot"], 3);
  expect(run("rf 2"), 1, "no card in slot 2");
  expect(run("rf 4"), 1, "tells no RF output");
  status_ = "[]";
  expect(run("rf"), 1, "tells no status");
  status_ = R"({"cards": []})";
  expect(run("rf"), 1, "no card");
}

TEST_F(Qamctl, KnowsAWrongCall) {
  expectWrongCalls([&](const std::string& call) { return run(call); },
                   ";psi;fly;psi load;psi load 1.1;psi load 1.3 f.ts;psi load 7.1 f.ts;psi load 11 f.ts;"
                   "psi interval 1.1;psi interval 1.1 PAT;psi interval 1.1 EIT=3;psi interval 1.1 PAT=65536;"
                   "psi interval 1.1 PAT=-1;psi interval 1.1 PAT=1x;psi interval 1.1 PAT=;"
                   "psi interval 1.1 PAT=1 PAT=2;psi show 1.1 --fly;var get;var get 7 rfreq;"
                   "var get 1.1 rfreq;var get 1 46;var get 1 rfrequency;var set 1 rfreq;var set 1 rfreq -1;"
                   "var set 1 rfreq 600000 601000;var set 1 rfreq2 562000;var set 1 51 1;rf 0;rf 1.1;"
                   "--server nowhere status;status 1.1");
  EXPECT_TRUE(card_.log.empty());
  expect(run("--help"), 0, "Exit codes");
  expect(run("psi interval --help"), 0, "middle of a section");
  expect(run("var set 1 rflevel 1001"), 2, "950 to 1150 in steps of 5");
}

}  // namespace
}  // namespace client
