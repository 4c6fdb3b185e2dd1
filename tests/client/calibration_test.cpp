// The calibration datagram, its client, and qamcal, against a service made of bytes.
#include "client/calibration.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <iterator>

#include "tests/client/loopback.h"
#include "tests/client/program.h"
#include "tests/headend/scratch.h"

namespace client {
namespace {

using test::Call;
using test::expect;
using test::Outcome;
using Datagrams = std::vector<Bytes>;

const Bytes kCard = {0x04, 1, 2, 3, 4, 0x12, 0x0F, 0x80, 0x02, 0x0C, 0x0E, 0, 0x80};

// A service with a card in slot 3.
class Calibration : public ::testing::Test {
 protected:
  Outcome run(const std::string& arguments, const std::string& before = "") {
    Outcome outcome{};
    const std::string command = before + QAMCAL + " --server " + server_.address() + " " + arguments;
    server_.serve([&] { outcome = test::runProgram(command); });
    return outcome;
  }
  void expectCalls(const std::vector<Call>& calls) {
    test::expectCalls([this](const std::string& arguments) { return run(arguments); }, calls);
  }
  std::string file(const char* name) const { return scratch_.path / name; }
  std::string write(const char* name, const std::string& text) const {
    test::writeFile(file(name), Bytes(text.begin(), text.end()));
    return file(name);
  }
  Datagrams writes() const {
    Datagrams all;
    std::ranges::copy_if(log_, std::back_inserter(all), [](const Bytes& d) { return d.at(0) == 2; });
    return all;
  }
  Bytes reply() const {
    Bytes reply = {1, 2};
    reply.insert(reply.end(), dac_.begin(), dac_.end());
    return reply;
  }

  Bytes dac_ = kCard;
  Datagrams log_;
  std::function<std::optional<Datagrams>(const Bytes&)> instead_;  // nothing: as the service would answer
  test::LoopbackServer server_{[this](const Bytes& datagram) { return answer(datagram); }};

 private:
  Datagrams answer(const Bytes& datagram) {
    log_.push_back(datagram);
    if (instead_) {
      if (auto replies = instead_(datagram)) return *std::move(replies);
    }
    if (datagram.size() != 15 || datagram[1] != 2) return {};
    if (datagram[0] == 1) return {reply()};
    if (datagram[0] == 2) dac_.assign(datagram.begin() + 2, datagram.end());
    return {};
  }

  test::Scratch scratch_;
};

TEST_F(Calibration, FieldsStandWhereTheDataSheetPutsThem) {
  struct Row {
    const char* field;
    DacRegisters registers;
    const char* text;
  };
  const Row rows[] = {
      {"interpolation", {0, 0x80}, "4x"},
      {"PLL divider", {0, 0, 0, 0xFE}, "4"},
      {"charge pump current", {0, 0, 0, 0, 0x07}, "800 uA"},
      {"charge pump current", {0, 0, 0, 0, 0xF4}, "4"},  // no current of the data sheet
      {"I fine gain", {0, 0, 0, 0, 0, 0x12}, "18"},
      {"I coarse gain", {0, 0, 0, 0, 0, 0, 0xFA}, "10"},
      {"I offset", {0, 0, 0, 0, 0, 0, 0, 0x80, 0xFE}, "514"},
      {"I offset adds to", {0, 0, 0, 0, 0, 0, 0, 0, 0x80}, "IOUTB"},
      {"Q fine gain", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0x34}, "52"},
      {"Q coarse gain", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0B}, "11"},
      {"Q offset", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0x01}, "1021"},
      {"Q offset adds to", {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0x7F}, "IOUTA"},
  };
  for (const Row& row : rows) {
    const auto field = std::ranges::find(dacFields(), std::string_view(row.field), &DacField::name);
    ASSERT_NE(field, dacFields().end()) << row.field;
    EXPECT_EQ(fieldText(row.registers, *field), row.text) << row.field;
  }
  for (std::size_t bit = 0; bit < 8 * kDacRegisters; ++bit) {  // no bit is in two fields
    DacRegisters registers{};
    registers.at(bit / 8) = static_cast<u8>(1U << bit % 8);
    EXPECT_LE(differingFields(registers, {}).size(), 1U) << "bit " << bit;
  }
}

TEST_F(Calibration, ClientTakesOnlyTheReplyToItsOwnQuestion) {
  using std::chrono::milliseconds;
  const CalibrationClient client(server_.address(),
                                 {.timeout = milliseconds(60000), .repeat = milliseconds(50), .settle = {}});
  instead_ = [&](const Bytes&) -> std::optional<Datagrams> {
    if (log_.size() < 3) return Datagrams{};  // lost: it asks again
    Bytes other(15, 7);
    other[0] = 1;
    return Datagrams{{}, {1, 2}, Bytes(14, 2), Bytes(16, 1), other, Bytes(15, 2), reply(), reply()};
  };
  server_.serve([&] {
    const DacRegisters registers = client.read(2);
    EXPECT_TRUE(std::ranges::equal(registers, kCard));
    const CalibrationClient hasty(server_.address(),
                                  {.timeout = milliseconds(150), .repeat = milliseconds(1000), .settle = {}});
    test::expectSays(test::messageOf([&] { hasty.read(4); }),
                     server_.address() + ": no reply for slot 5 within 150 ms");
  });
}

TEST_F(Calibration, QamcalWritesWhatIsGivenAndKeepsTheRest) {
  const Bytes wire = {2, 2, 4, 1, 2, 3, 4, 0x13, 0x0F, 0x80, 0x02, 1, 2, 3, 4};
  expectCalls(
      {{"read 3", 0, "0x05  0x12  I fine gain: 18\n"},
       {"--json read 3", 0, "\"i_offset\": 514"},
       {"write 3 --i 0x13 0F 80 02 --q 1 2 3 4", 0, "0x05  0x12 -> 0x13  I fine gain: 18 -> 19\n  0x09"},
       {"write 3 --common 4 1 2 3 4", 0, "does not show that the request came through"}});
  EXPECT_EQ(writes(), (Datagrams{wire, wire}));
  EXPECT_EQ(dac_, Bytes(wire.begin() + 2, wire.end()));
}

TEST_F(Calibration, QamcalFailsWhenTheReadBackDoes) {
  struct Row {
    const char* fault;
    bool damages, answersThen;
    const char* part;
  };
  const Row rows[] = {
      {"lost", false, true, "the request was lost"},
      {"one bit", true, true, "0x09  0x01 -> 0x0d  Q fine gain: 1 -> 13\nread again"},
      {"silence", false, false, "written, but it could not be read back: "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.fault);
    dac_ = kCard;
    log_.clear();
    instead_ = [&](const Bytes& request) -> std::optional<Datagrams> {
      if (request[0] == 2 && row.damages) dac_[9] ^= 1U;
      const bool silent = request[0] == 2 || (log_.size() > 1 && !row.answersThen);
      return silent ? std::optional(Datagrams{}) : std::nullopt;
    };
    expect(run("--timeout 1 write 3 --q 1 0e 00 80"), 1, row.part);
  }
}

TEST_F(Calibration, QamcalPutsTheSerialPortAtRiskOnlyByForce) {
  for (const char* common : {"80", "40", "20", "ff"}) {
    expect(run(fmt::format("write 3 --common {} 0 0 0 0", common)), 1, "nothing was written");
  }
  dac_[0] = 0xE4;  // kept, so written again
  const std::string risky = file("risky.json");
  expectCalls({{"write 3 --i 1 2 3 4", 1, "data direction, bit order, software reset"},
               {"save 3 " + risky, 0, "note: 0xe4 in register 0x00"},
               {"restore 3 " + risky, 1, "--force"}});
  EXPECT_TRUE(writes().empty());
  expectCalls({{"write 3 --force --common 1f 0 0 0 0", 0, "reads back the same"},
               {"restore 3 --force " + risky, 0, "reads back the same"}});
  EXPECT_EQ(dac_[0], 0xE4);
  dac_ = Bytes(13, 0xFF);
  expect(run("read 3"), 0, "the EEPROM is blank");
}

TEST_F(Calibration, QamcalRestoresWhatItSavedAndNoFileThatItDoubts) {
  const std::string saved = file("card.json");
  expect(run("save 3 " + saved), 0, "");
  dac_ = Bytes(13, 0);
  expectCalls({{"restore 3 " + saved, 0, "0x07  0x00 -> 0x80  I offset: 0 -> 514"},
               {"--timeout 0.2 save 2 " + saved, 1, "no reply for slot 2"},
               {"--timeout 0.2 write 2 --i 1 2 3 4", 1, "no reply for slot 2"},
               {"save 3 " + file("absent/card.json"), 1, "cannot be written"},
               {"restore 3 " + saved, 0, "same"}});
  EXPECT_EQ(dac_, kCard);
  const std::string good =
      R"({"dac_calibration": 1, "common": ["4","1","2","3","4"], )"
      R"("i": ["12","0f","80","02"], "q": ["0c","0e","00","80"], "fields": {"pll": "off"}})";
  const auto with = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    return text.replace(text.find(from), from.size(), to);
  };
  const std::pair<std::string, const char*> doubtful[] = {
      {"", "is not JSON"},
      {good.substr(0, good.size() - 1), "is not JSON"},
      {"[1]", "is no calibration"},
      {with("\": 1", "\": 2"), "is no calibration"},
      {with("\"i\"", "\"j\""), R"("i" must have 4 bytes)"},
      {with("\"4\",", ""), R"("common" must have 5 bytes)"},
      {with("\"0e\"", "14"), R"("q" must hold texts)"},
      {with("0e", "0x100"), "'0x100' is no byte"},
      {with("0e", "-1"), "'-1' is no byte"},
      {with("off", "on"), R"("pll" is not what the bytes say ("off"))"},
      {std::string(70000, ' ') + good, "too long"}};
  log_.clear();
  for (const auto& [text, part] : doubtful) expect(run("restore 3 " + write("bad.json", text)), 1, part);
  expect(run("restore 3 " + file("")), 1, "cannot be read");
  EXPECT_TRUE(log_.empty());
  expect(run("restore 3 " + write("good.json", good)), 0, "was not saved from slot 3");
}

TEST_F(Calibration, QamcalWatchesUntilItIsInterrupted) {
  instead_ = [&](const Bytes&) -> std::optional<Datagrams> {
    const std::size_t n = log_.size();
    if (n == 3) dac_[5] = 0x13;
    if (n == 4) return Datagrams{};
    if (n == 6) kill(std::stoi(test::readText(file("pid"))), SIGINT);
    return std::nullopt;
  };
  const Outcome watched = run("--timeout 1 watch 3 --every 0.1", "echo $$ >" + file("pid") + "; exec ");
  for (const char* part :
       {"slot 3\n", "0x05  0x12 -> 0x13  I fine gain: 18 -> 19\n", "no reply for slot 3", "answers again"}) {
    expect(watched, 0, part);
  }
  EXPECT_EQ(watched.text.find("18 -> 19"), watched.text.rfind("18 -> 19"));  // once
}

TEST_F(Calibration, QamcalKnowsAWrongCall) {
  test::expectWrongCalls([this](const std::string& call) { return run(call); },
                         ";fly;read;read 0;read 7;read 1.1;read 1 2;write 3;write 3 --i;write 3 --i 1 2 3;"
                         "write 3 --i 1 2 3 100;write 3 --q 1 2 3 -1;write 3 --i 1 2 3 4 --i 1 2 3 4;save 3;"
                         "watch 3 --every 0;--timeout 0 read 3;--timeout x read 3;--server nowhere read 3");
  EXPECT_TRUE(log_.empty());
  expectCalls({{"--help", 0, "Exit codes"}, {"read 3 >/dev/full", 1, ""}});
}

}  // namespace
}  // namespace client
