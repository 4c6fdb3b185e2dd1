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

namespace client {
namespace {

namespace fs = std::filesystem;
using test::Call;
using test::expect;
using test::has;
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

TEST_F(Qamctl, ShowsTablesAndSavesNoneThatItCannotReadWhole) {
  const std::string beyond = file("beyond.ts");
  chassis_.drive([&] {
    expectCalls({{"psi load 1.2 " + sample("psi-eit.ts") + " --interval PAT=50", 0, "EIT"},
                 {"psi show 1.2", 0, "50 ticks (50 ms)"},
                 {"psi show 1.2 --json", 0, "\"interval_ms\": 50.0"},
                 {"psi show 1.2 >/dev/full", 1, ""},
                 {"psi show 1.1 --save " + beyond, 1, "stores no packets"},
                 {"psi load 1.2 " + sample("psi-full.ts"), 0, "503 packets"},
                 {"psi load 1.1 " + sample("broken.ts"), 0, "byte 56400 (188 skipped)"},
                 {"psi load 1.1 " + sample("not-a-stream.ts"), 1, "no transport stream"},
                 {"psi load 1.1 " + file("absent.ts"), 1, "No such file"},
                 {"psi load 2.1 " + sample("psi-small.ts"), 1, "no card in this slot"}});
    upload(link_, {0, 1}, planUpload(test::onePacketSections(0x46, 0x11, 300)), {});
    expectCalls({{"psi show 1.2", 0, "SDT_O: 38 packets beyond"},
                 {"psi show 1.2", 0, "version 0: extension 7: cannot be decoded"},
                 {"psi show 1.2 --save " + beyond, 1, "38 packets cannot be read"}});
    ChannelVariables(link_, {0, 1}).setLock(true);
    expectCalls(
        {{"psi show 1.2 --save " + beyond, 1, "the channel is locked"}, {"psi clear 1.2", 1, "--force"}});
  });
  EXPECT_FALSE(fs::exists(beyond));
}

TEST_F(Qamctl, ReadsAndSetsVariables) {
  chassis_.drive([&] {
    chassis_.board().sensor(1).temperature(-55, chassis_.now());
    link_.wait(std::chrono::seconds(2));
    expect(runWith("var list"), 0, "950 to 1150 in steps of 5");  // no server there
    const char* const all = "rfreq, rflevel, symbolrate, qammode, rfswitch and power can";
    expectCalls({{"var set 1 rfreq 52001", 0, ""},
                 {"var set 1 rfreq 1000000", 0, ""},
                 {"var set 1 rfreq 1000001", 2, "52000 to 1000000 (kHz)"},
                 {"var set 1 rflevel 1150", 0, ""},
                 {"var set 1 rflevel 950", 0, ""},
                 {"var set 1 rflevel 951", 2, "950 to 1150 in steps of 5 (0.1 dBuV)"},
                 {"var set 1 rflevel 945", 2, "950 to 1150 in steps of 5"},
                 {"var set 1 qammode 8", 2, "5 (64-QAM), 6 (128-QAM) or 7 (256-QAM)"},
                 {"var set 1 rfswitch on", 2, "rfswitch cannot be 'on': possible are 0 (on) or 1 (off)\n"},
                 {"var set 1 51 1", 2, "no variable"},
                 {"var set 1 rfreq2 562000", 2, all},
                 {"var set 1 32 6900", 0, "clock table"},
                 {"var get 1 rfreq 31 qammode2 47 49", 0,
                  "30  rfreq            1000000 kHz\n31  rflevel          950 (95.0 dBuV)\n"
                  "41  qammode2         5 (64-QAM)\n47  temperature1     -55 deg C\n"
                  "49  software_version V2.1.05A\n"},
                 {"var get 1 --json", 0, R"("value": -55)"},
                 {"var set 2 rfreq 600000", 1, "setting rfreq of the card in slot 2 was refused: no card"}});
    EXPECT_FALSE(has(run("var set 1 32 6875").text, "clock table"));
    const auto answerWith = [&](u32 result, const Bytes& data) {
      link_.after = [=](Reply& reply) { reply.result = result, reply.data = data; };
    };
    for (const auto& [result, part] : {std::pair(kNotRunning, "does not run"),
                                       {kNotWritable, "only be read"},
                                       {kSettingRefused, "cannot set"}}) {
      answerWith(result, {});
      expect(run("var set 1 31 1000"), 1, part);
    }
    for (const Bytes& odd : {Bytes{}, Bytes{0}, Bytes{0, 1, 2, 3}, Bytes{0, 1, 2, 3, 4, 5},
                             Bytes{1, '3', '0'}, Bytes{2, 0, 0, 0, 1}}) {
      answerWith(kDone, odd);
      expect(run("var get 1 30"), 1, "not what was asked for");
    }
    answerWith(kDone, encodeValue(std::string("V\x1B[7m")));
    for (const char* json : {"", " --json"}) {
      const Outcome cleaned = run(std::string("var get 1 49") + json);
      EXPECT_TRUE(cleaned.code == 0 && !has(cleaned.text, "\x1B")) << cleaned.text;
    }
    link_.after = [&](Reply& reply) {
      if (link_.log.back().variable == 38) reply.result = kNotRunning;
    };
    const Outcome broken = run("var get 1 30 38");  // leaves no half of an answer
    EXPECT_TRUE(broken.code == 1 && !has(broken.text, "kHz")) << broken.text;
  });
}

TEST_F(Qamctl, TellsTheStatusAndWhatGoesOutAtTheConnectors) {
  status_ = R"({"virtual_seconds": 61.5, "aux_hz": 1000, "cards": [
    {"slot": 1, "state": "running", "lcd": "QAM \u001b[2J", "startup_ms": 12, "channels": [
      {"bit_rate": 38014705, "packets": {"total": 9, "psi": 4}, "locked_seconds": 10,
       "tables": {"PAT": {"set_ticks": 300, "posted": 4}},
       "rf": {"verdict": "on air", "on_air": true, "why": "", "frequency_khz": 554006.25, "level_dbuv": 100.5,
              "symbol_rate_kbd": 6875, "clock_kbd": 6875.0, "constellation": "64-QAM", "bit_rate": 38014705.9}},
      {"locked_seconds": 10.1,
       "rf": {"verdict": "faulty", "on_air": false, "why": "no\u001b clock", "frequency_khz": null,
              "level_dbuv": 99, "symbol_rate_kbd": 6900, "clock_kbd": null, "constellation": null,
              "bit_rate": 0}}]},
    {"slot": 3, "channels": [{"rf": {"verdict": "off"}}, {}, 5]},
    {"slot": 4}, 7],
    "assertion_failures": [{}, {}], "protocol_violations": {"short latch": 3}})";
  const std::string table =
      "1.1  on air    554.0063  100.5   64-QAM  6875   6875.000  38014706\n"
      "1.2  faulty           -   99.0        -  6900          -         0\n     no clock\n3.1  off";
  chassis_.drive([&] {
    expectCalls({{"rf", 0, table},
                 {"rf 3", 0, "bit/s\n3.1  off"},
                 {"rf 2", 1, "no card in slot 2"},
                 {"rf 4", 1, "tells no RF output"},
                 {"rf 1 --json", 0, "\"clock_kbd\": null"}});
    const Outcome status = run("status");
    for (const char* part : {"61.5 s", "1000 ticks", "slot 1: running", "LCD: QAM [2J", "38014705",
                             "PAT 4/300", "locked for 10 s: an upload is under way", "LOCKED for 10 s",
                             "psi clear 1.2 --force", "failed checks: 2", "short latch 3"}) {
      expect(status, 0, part);
    }
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
                 {"pidmap show 1.2", 0, "  5.2  0x0101 -> 0x1cff  programme 1 -> 7, type 1\n"},
                 {"pidmap show 1.2", 0, "router: holds the record"},
                 {"pidmap show 1.2 --json", 0, "\"router_holds_record\": true"},
                 {"pidmap show 1.2 --csv", 0, header + rows},
                 {"pidmap load 1.2 " + bad, 1, "bad.csv line 2: the source card in slot 5 has no input 3"},
                 {"pidmap load 1.2 " + file("none.csv"), 1, "cannot be read"},
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
        "psi show 1.1 --fly;var get;var get 7 rfreq;var get 1.1 rfreq;var get 1 46;var get 1 0x1e;"
        "var get 1 rfre;var get 1 4294967326;var set 1 rfreq;"
        "var set 1 rfreq -1;var set 1 rfreq 600000 601000;"
        "rf 0;rf 1.1;--server nowhere status;status 1.1");
    EXPECT_TRUE(link_.log.empty());
    expectCalls({{"--help", 0, "Exit codes"}, {"psi interval --help", 0, "middle of a section"}});
  });
}

}  // namespace
}  // namespace client
