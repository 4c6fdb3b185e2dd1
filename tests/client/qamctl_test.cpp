// The program itself against a chassis behind a socket: what it does, what it says, its exit codes.
#include <gtest/gtest.h>

#include "client/card_settings.h"
#include "client/channel_variables.h"
#include "client/pid_map_variables.h"
#include "client/psi_upload.h"
#include "tests/client/card_link.h"
#include "tests/client/loopback.h"
#include "tests/client/program.h"
#include "tests/client/streams.h"
#include "tools/psi_decode.h"

namespace client {
namespace {

namespace fs = std::filesystem;
using test::Call;
using test::expect;
using test::Outcome;
using test::sample;

class Qamctl : public test::CardTest {
 protected:
  Outcome run(const std::string& arguments) {
    return runWith("--server " + server_.address() + " " + arguments);
  }
  Outcome runWith(const std::string& arguments) {
    Outcome outcome{};
    const std::string command = fmt::format("XDG_STATE_HOME={} {} {}", file(""), QAMCTL, arguments);
    server_.serve([&] { outcome = test::runProgram(command); });
    return outcome;
  }
  void expectCalls(const std::vector<Call>& calls) {
    test::expectCalls([this](const std::string& arguments) { return run(arguments); }, calls);
  }
  std::string file(const char* name) const { return scratch_.path / name; }

  std::optional<std::string> status_;  // in place of the chassis's own

  test::LoopbackServer server_{[this](const Bytes& datagram) { return answer(datagram); }};

 private:
  std::vector<Bytes> answer(const Bytes& datagram) {
    const Request request = decodeRequest(datagram).value();
    Reply reply = link_.call(request);
    reply.sequence = request.sequence;
    if (request.operation == Operation::kStatus && status_)
      reply.data.assign(status_->begin(), status_->end());
    return {encode(reply)};
  }
};

TEST_F(Qamctl, LoadsShowsSavesAndClearsTables) {
  const std::string eit = sample("psi-eit.ts");
  const std::string small = sample("psi-small.ts");
  chassis_.drive([&] {
    expectCalls({{"psi load 1.2 " + eit + " --interval PAT=50 --interval CAT=9", 0, "EIT"},
                 {"psi show 1.2 --save " + file("saved.ts"), 0, "service 5: \"Service 5\" (Provider)"},
                 {"psi show 1.2", 0, "50 ticks (50 ms)"},
                 {"psi show 1.2 --json", 0, "\"interval_ms\": 50.0"},
                 {"psi interval 1.1 SDT_C=20 PAT=3", 0, ""},
                 {"psi show 1.1", 0, "20 ticks (20 ms)"},
                 {"status", 0, "slot 1: running"},
                 {"status --json", 0, "\"aux_hz\": 1000"},
                 {"psi load 1.2 " + sample("psi-full.ts"), 0, "503 packets"},
                 {"psi clear 1.2", 0, ""},
                 {"psi show 1.2 >/dev/full", 1, ""}});
    EXPECT_EQ(readCapture(fs::path(file("saved.ts"))).sections, readCapture(fs::path(eit)).sections);
    ChannelVariables card(link_, {0, 1});
    card.setLock(true);
    link_.log.clear();
    expectCalls({{"psi load 1.1 " + sample("not-a-stream.ts"), 1, "no transport stream"},
                 {"psi load 1.1 " + file("absent.ts"), 1, "No such file"},
                 {"psi load 1.1 " + sample("psi-too-many.ts"), 1, "534 packets"},
                 {"psi load 1.1 " + sample("psi-pid-1ff.ts"), 1, "0x01ff"},
                 {"psi load 2.1 " + small, 1, "no card in this slot"},
                 {"psi load 1.2 " + small, 1, "--force"},
                 {"psi clear 1.2", 1, "--force"}});
    for (const Request& request : link_.log) EXPECT_EQ(request.operation, Operation::kRead);
    expect(run("psi load 1.2 --force " + small), 0, "8 packets");
    const std::string closed = test::LoopbackServer({}).address();
    expect(runWith("--server " + closed + " status"), 1, closed + ": nothing listens");
  });
}

// More packets than requests reach.
TEST_F(Qamctl, SavesNoTablesThatItCannotReadWhole) {
  chassis_.drive([&] {
    upload(link_, {0, 1}, planUpload(test::onePacketSections(0x46, 0x11, 300)), {});
    expectCalls({{"psi show 1.2", 0, "38"}, {"psi show 1.2 --save " + file("beyond.ts"), 1, "38"}});
    EXPECT_FALSE(fs::exists(file("beyond.ts")));
  });
}

TEST_F(Qamctl, ReadsAndSetsVariables) {
  chassis_.drive([&] {
    chassis_.board().sensor(1).temperature(-5, chassis_.now());
    link_.wait(std::chrono::seconds(2));
    expect(runWith("var list"), 0, "950 to 1150 in steps of 5");  // no server there
    expectCalls(
        {{"var get 1 rfreq 47", 0, "30  rfreq            554000 kHz\n47  temperature1     -5 deg C\n"},
         {"var get 1 --json", 0, R"("value": -5)"},
         {"var set 1 rfreq 600000", 0, ""},
         {"var set 1 32 6900", 0, "clock table"},
         {"var get 1 30 32", 0, "6900 kBd"},
         {"var set 2 rfreq 600000", 1, "no card in this slot"}});
    EXPECT_EQ(getVariable(link_, 0, 30), VariableValue(600000U));
    EXPECT_EQ(tools::Json::parse(run("var get 1 --json").text).size(), cardVariables().size());
    link_.after = [&](Reply& reply) {
      if (link_.log.back().variable == 49) reply.data = encodeValue(std::string("V\x1B[7m"));
      if (link_.log.back().variable == 38) reply.result = kNotRunning;
    };
    expect(run("var get 1 49"), 0, "V");
    EXPECT_EQ(run("var get 1 49 --json").text.find('\x1B'), std::string::npos);
    EXPECT_EQ(run("var get 1 49").text.find('\x1B'), std::string::npos);
    const Outcome broken = run("var get 1 30 38");  // leaves no half of an answer
    expect(broken, 1, "reading rfreq2 of the card in slot 1 was refused");
    EXPECT_EQ(broken.text.find("kHz"), std::string::npos);
  });
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
  chassis_.drive([&] {
    expectCalls(
        {{"rf", 0, "1.1  on air    554.0063  100.5   64-QAM  6875   6875.000  38014706\n1.2 "},
         {"rf", 0, "1.2  faulty           -   99.0        -  6900          -         0\n     no clock\n3.1"},
         {"rf 3", 0, "3.1  off"},
         {"rf 2", 1, "no card in slot 2"},
         {"rf 4", 1, "tells no RF output"}});
    EXPECT_EQ(run("rf 3").text.find("1.1"), std::string::npos);
    const auto json = tools::Json::parse(run("rf --json").text);
    ASSERT_EQ(json.size(), 3U);
    EXPECT_TRUE(json[1]["slot"] == 1 && json[1]["channel"] == 2 && json[1]["clock_kbd"] == nullptr);
    status_ = "[]";
    expect(run("rf"), 1, "tells no status");
    status_ = R"({"cards": []})";
    expect(run("rf"), 1, "no card");
  });
}

TEST_F(Qamctl, LoadsShowsAndReleasesPidMaps) {
  const std::string header = "src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n";
  const std::string rows = "5,2,0x0101,1,0x1cff,7,1\n6,1,0x0102,2,0x1cfe,7,2\n";
  const std::string map = file("map.csv");
  const std::string bad = file("bad.csv");
  test::writeFile(map, test::bytesOf(header + rows));
  test::writeFile(bad, test::bytesOf(header + "5,3,1,0,2,0,0\n"));
  chassis_.drive([&] {
    PidMapVariables card(link_, {0, 1});
    expectCalls({{"pidmap load 1.2 " + map, 0, "2 entries loaded"},
                 {"pidmap show 1.2", 0, "router: holds the record"},
                 {"pidmap show 1.2", 0, "  5.2  0x0101 -> 0x1cff  programme 1 -> 7, type 1"},
                 {"pidmap show 1.2 --json", 0, "\"router_holds_record\": true"},
                 {"pidmap show 1.2 --csv", 0, header + rows},
                 {"pidmap load 1.2 " + bad, 1, "bad.csv line 2: the source card in slot 5 has no input 3"},
                 {"pidmap load 1.2 " + file("none.csv"), 1, "cannot be read"},
                 {"pidmap load 1.3 " + map, 2, "is no SLOT.CHANNEL"},
                 {"pidmap release 1.2 --empty --restore " + map, 2, "excludes"},
                 {"pidmap release 1.2", 1, "not locked"},
                 {"pidmap load 2.1 " + map, 1, "no card"}});
    card.setLock(true);
    expectCalls({{"pidmap show 1.2", 0, "LOCKED"},
                 {"pidmap show 1.2", 0, "router, ANOTHER MAP than the record: 2 entries"},
                 {"pidmap show 1.2 --csv", 0, "6,1,0x0102,0,0x1cfe,0,0"},
                 {"pidmap clear 1.2", 1, "'qamctl pidmap release 1.2' ends the lock"},
                 {"pidmap release 1.2", 0, "released, 2 entries"}});
    card.setLock(true);
    const fs::path rescue = scratch_.path / "qamctl" / server_.address() / "pidmap-1.2.rescue.csv";
    EXPECT_FALSE(fs::exists(rescue));
    fs::copy_file(map, rescue);
    expectCalls({{"pidmap load 1.2 " + map, 1, "release 1.2 --restore " + rescue.string()},
                 {"pidmap release 1.2 --restore " + rescue.string(), 0, "released, 2 entries"},
                 {"pidmap clear 1.2", 0, "0 entries"}});
    EXPECT_FALSE(fs::exists(rescue));
    EXPECT_TRUE(entriesOf(routerMap(link_, {0, 1})).empty());
  });
}

TEST_F(Qamctl, KnowsAWrongCall) {
  chassis_.drive([&] {
    link_.log.clear();
    test::expectWrongCalls(
        [this](const std::string& call) { return run(call); },
        ";psi;fly;psi load;psi load 1.1;psi load 1.3 f.ts;psi load 7.1 f.ts;psi load 11 f.ts;"
        "psi interval 1.1;psi interval 1.1 PAT;psi interval 1.1 EIT=3;psi interval 1.1 PAT=65536;"
        "psi interval 1.1 PAT=-1;psi interval 1.1 PAT=1x;psi interval 1.1 PAT=1 PAT=2;"
        "psi show 1.1 --fly;var get;var get 7 rfreq;var get 1.1 rfreq;var get 1 46;var set 1 rfreq;"
        "var set 1 rfreq -1;var set 1 rfreq 600000 601000;var set 1 rfreq2 562000;var set 1 51 1;"
        "rf 0;rf 1.1;--server nowhere status;status 1.1");
    EXPECT_TRUE(link_.log.empty());
    expectCalls({{"--help", 0, "Exit codes"},
                 {"psi interval --help", 0, "middle of a section"},
                 {"var set 1 rflevel 1001", 2, "950 to 1150 in steps of 5"}});
  });
}

}  // namespace
}  // namespace client
