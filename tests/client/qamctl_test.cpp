// The program itself against a card behind a socket: what it does, what it says, its exit codes.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "client/psi_capture.h"
#include "tests/client/fake_card.h"
#include "tests/client/fake_server.h"
#include "tests/client/streams.h"

namespace client {
namespace {

struct Outcome {
  int code;
  std::string text;  // stdout and stderr
};

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
    FILE* pipe = popen((std::string(QAMCTL) + " " + arguments + " 2>&1").c_str(), "r");
    Outcome outcome{.code = -1, .text = {}};
    std::array<char, 4096> buffer{};
    while (const std::size_t n = fread(buffer.data(), 1, buffer.size(), pipe))
      outcome.text.append(buffer.data(), n);
    outcome.code = WEXITSTATUS(pclose(pipe));
    return outcome;
  }

  std::string file(const char* name) const { return folder_ + "/" + name; }
  bool folderIsEmpty() const { return std::filesystem::is_empty(folder_); }

  test::FakeCard card_;

 private:
  Reply answer(const Request& r) {
    if (r.operation != Operation::kStatus) return card_.handle(r);
    const std::string status = R"({"aux_hz": 500, "cards": [{"slot": 1, "state": "running"}]})";
    return {.operation = 3,
            .sequence = r.sequence,
            .variable = r.variable,
            .slot = r.slot,
            .port = r.port,
            .result = 0,
            .data = Bytes(status.begin(), status.end())};
  }

  std::string folder_;
  test::FakeServer server_;
};

void expect(const Outcome& outcome, int code, const std::string& part) {
  EXPECT_EQ(outcome.code, code) << outcome.text;
  EXPECT_NE(outcome.text.find(part), std::string::npos) << "no '" << part << "' in: " << outcome.text;
}

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

TEST_F(Qamctl, KnowsAWrongCall) {
  for (const char* call : {"",
                           "psi",
                           "fly",
                           "psi load",
                           "psi load 1.1",
                           "psi load 1.3 f.ts",
                           "psi load 7.1 f.ts",
                           "psi load 11 f.ts",
                           "psi load 0.1 f.ts",
                           "psi interval 1.1",
                           "psi interval 1.1 PAT",
                           "psi interval 1.1 EIT=3",
                           "psi interval 1.1 PAT=65536",
                           "psi interval 1.1 PAT=-1",
                           "psi interval 1.1 PAT=1x",
                           "psi interval 1.1 PAT=",
                           "psi interval 1.1 PAT=99999999999999999999",
                           "psi interval 1.1 PAT=1 PAT=2",
                           "psi show 1.1 --fly",
                           "--server nowhere status",
                           "status 1.1"}) {
    EXPECT_EQ(run(call).code, 2) << call;
  }
  EXPECT_TRUE(card_.log.empty());
  expect(run("--help"), 0, "Exit codes");
  expect(run("psi interval --help"), 0, "middle of a section");
}

}  // namespace
}  // namespace client
