// The client of the calibration service and qamcal, against a service made of bytes.
#include "client/calibration.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <csignal>
#include <sstream>

#include "tests/client/program.h"
#include "tests/client/streams.h"
#include "tests/headend/scratch.h"

namespace client {
namespace {

using test::expect;
using test::operator+;  // NOLINT(misc-unused-using-decls): clang-tidy 14 takes no operator for a use
using Datagrams = std::vector<Bytes>;

constexpr u8 kRead = 1;
constexpr u8 kWrite = 2;
const Bytes kCard = {0x04, 1, 2, 3, 4, 0x12, 0x0F, 0x80, 0x02, 0x0C, 0x0E, 0, 0x80};

// A service with a card in slot 3.
class Calibration : public testing::Test, protected test::Program {
 protected:
  Calibration()
      : Program(QAMCAL, [this](const Bytes& datagram) {
          ++requests_;
          if (datagram.at(0) == kWrite) writes_.push_back(datagram);
          return service_(datagram);
        }) {}
  std::string file(const char* name) const { return scratch_.path / name; }
  Datagrams serve(const Bytes& datagram) {
    if (datagram.size() != 15 || datagram[1] != 2) return {};
    if (datagram[0] == kRead) return {Bytes{kRead, 2} + dac_};
    dac_.assign(datagram.begin() + 2, datagram.end());
    return {};
  }

  test::Scratch scratch_;
  Bytes dac_ = kCard;
  int requests_ = 0;
  Datagrams writes_;
  std::function<Datagrams(const Bytes&)> service_ = [this](const Bytes& d) { return serve(d); };
};

TEST_F(Calibration, QamcalTakesOnlyTheReplyToItsOwnQuestion) {
  service_ = [&](const Bytes& question) {
    if (requests_ == 1) return Datagrams{};  // lost: the client repeats the request
    const Bytes right = serve(question).at(0);
    return Datagrams{{}, Bytes(14, 2), Bytes(16, 1), Bytes{kRead} + Bytes(14, 7), Bytes(15, 2), right, right};
  };
  expect(run("--timeout 60 read 3"), 0, "12 0f 80 02\n");
}

// The fields of each register from bit 7 down; empty for a reserved bit.
TEST_F(Calibration, EachBitBelongsToTheFieldOfTheDataSheet) {
  const char* const kSheet[] = {
      "data direction,bit order,software reset,sleep,power-down,reference resistors,PLL lock,",
      "interpolation,interpolation,modulation,modulation,zero stuffing,mixing,modulation form,clock pin",
      "data format,data ports,DATACLK driver,DATACLK,,ONEPORTCLK,IQSEL,one-port order",
      "data rate clock at,,,,,,PLL divider,PLL divider",
      "PLL,charge pump,,,,charge pump current,charge pump current,charge pump current",
  };
  for (std::size_t bit = 0; bit < std::size(kSheet) * 8; ++bit) {
    std::istringstream sheet(kSheet[bit / 8]);
    std::string due;
    for (std::size_t i = 0; i <= bit % 8; ++i) std::getline(sheet, due, ',');
    DacRegisters changed{};
    changed.at(bit / 8) = static_cast<u8>(0x80 >> bit % 8);
    std::string found;
    for (const DacField* field : differingFields(DacRegisters{}, changed)) found += field->name;
    EXPECT_EQ(found, due) << bit;
  }
}

TEST_F(Calibration, QamcalShowsFieldsAsTheDataSheetHasThem) {
  dac_ = {0x10, 0x80, 0, 0xFE, 0x07, 0x12, 0xFA, 0x80, 0xFE, 0x34, 0x0B, 0xFF, 0x01};
  expectCalls({{"--json read 3", 0, "\"i_offset\": 514"},
               {"read 3", 0, "; sleep: on; "},
               {"read 3", 0, "0x80  interpolation: 4x; mod"}});
  expect(run("read 3"), 0, R"(
  0x03  0xfe  data rate clock at: SPI_SDO; PLL divider: 4
  0x04  0x07  PLL: off; charge pump: automatic; charge pump current: 800 uA
  0x05  0x12  I fine gain: 18
  0x06  0xfa  I coarse gain: 10
  0x07  0x80  I offset: 514
  0x08  0xfe  I offset adds to: IOUTB
  0x09  0x34  Q fine gain: 52
  0x0a  0x0b  Q coarse gain: 11
  0x0b  0xff  Q offset: 1021
  0x0c  0x01  Q offset adds to: IOUTA
)");
  dac_ = Bytes(13, 0xFF);
  expect(run("read 3"), 0, "the EEPROM is blank");
}

TEST_F(Calibration, QamcalWritesWhatIsGivenKeepsTheRestAndReadsBack) {
  const Bytes wire = {kWrite, 2, 4, 1, 2, 3, 4, 0x13, 0x0F, 0x80, 0x02, 1, 2, 3, 4};
  expectCalls(
      {{"write 3 --i 0x13 0F 80 02 --q 1 2 3 4", 0, "0x05  0x12 -> 0x13  I fine gain: 18 -> 19\n  0x09"},
       {"write 3 --common 4 1 2 3 4", 0, "does not show that the request came through"}});
  EXPECT_EQ(writes_, (Datagrams{wire, wire}));
  service_ = [&](const Bytes& d) { return d[0] == kWrite ? Datagrams{} : serve(d); };
  expect(run("write 3 --q 1 2 3 5"), 1, "the request was lost");
  service_ = [&](const Bytes& d) {
    if (d[0] == kWrite) dac_[9] = 13;
    return d[0] == kWrite ? Datagrams{} : serve(d);
  };
  expect(run("write 3 --q 1 2 3 5"), 1, "0x09  0x01 -> 0x0d  Q fine gain: 1 -> 13\n");
  writes_.clear();
  service_ = [&](const Bytes& d) { return writes_.empty() ? serve(d) : Datagrams{}; };
  expect(run("--timeout 1 write 3 --q 1 2 3 5"), 1, "written, but it could not be read back: ");
}

TEST_F(Calibration, QamcalPutsTheSerialPortAtRiskOnlyByForce) {
  const std::string risky = file("risky.json");
  dac_[0] = 0xE4;
  expectCalls({{"write 3 --common 80 0 0 0 0", 1, "nothing was written"},
               {"write 3 --common 40 0 0 0 0", 1, "nothing was written"},
               {"write 3 --common 20 0 0 0 0", 1, "nothing was written"},
               {"write 3 --common 4 0 0 80 0", 1, "0x80 in register 0x03"},
               {"write 3 --i 1 2 3 4", 1, "data direction, bit order, software reset"},  // kept, so written
               {"save 3 " + risky, 0, "note: 0xe4 in register 0x00"},
               {"restore 3 " + risky, 1, "--force"}});
  EXPECT_TRUE(writes_.empty());
  expectCalls({{"write 3 --force --common 1f 0 0 0 0", 0, "reads back the same"},
               {"restore 3 --force " + risky, 0, "reads back the same"}});
  EXPECT_EQ(dac_[0], 0xE4);
}

TEST_F(Calibration, QamcalRestoresWhatItSavedAndNoFileThatItDoubts) {
  const std::string saved = file("card.json");
  expect(run("save 3 " + saved), 0, "");
  dac_ = Bytes(13, 0);
  expectCalls({{"restore 3 " + saved, 0, "0x07  0x00 -> 0x80  I offset: 0 -> 514"},
               {"--timeout 0.2 save 2 " + saved, 1, "no reply for slot 2 within 200 ms"},
               {"save 3 " + file("absent/card.json"), 1, "cannot be written"},
               {"restore 3 " + file(""), 1, "cannot be read"},
               {"restore 3 " + saved, 0, "same"}});
  EXPECT_EQ(dac_, kCard);
  const std::string good =
      R"({"dac_calibration": 1, "common": ["4","1","2","3","4"], )"
      R"("i": ["12","0f","80","02"], "q": ["0c","0e","00","80"], "fields": {"pll": "off"}})";
  const std::tuple<std::string, std::string, const char*> rows[] = {
      {"}}", "}", "is not JSON"},
      {good, "[1]", "is no calibration"},
      {"\": 1", "\": 2", "is no calibration"},
      {"\"i\"", "\"j\"", R"("i" must have 4 bytes)"},
      {"\"4\",", "", R"("common" must have 5 bytes)"},
      {"\"0e\"", "14", R"("q" must hold texts)"},
      {"0e", "0x100", "'0x100' is no byte"},
      {"0e", "-1", "'-1' is no byte"},
      {"off", "on", R"("pll" is not what the bytes say ("off"))"},
      {"{", std::string(1 << 20, ' ') + "{", "too large"},
  };
  writes_.clear();
  for (const auto& [from, to, part] : rows) {
    std::string text = good;
    text.replace(text.find(from), from.size(), to);
    test::writeFile(saved, test::bytesOf(text));
    expect(run("restore 3 " + saved), 1, part);
  }
  EXPECT_TRUE(writes_.empty());
  test::writeFile(saved, test::bytesOf(good));
  expect(run("restore 3 " + saved), 0, "was not saved from slot 3");
}

TEST_F(Calibration, QamcalWatchesUntilItIsInterrupted) {
  service_ = [&](const Bytes& datagram) {
    if (requests_ == 3) dac_[5] = 0x13;
    if (requests_ == 6) kill(std::stoi(test::readText(file("pid"))), SIGINT);
    return requests_ == 4 ? Datagrams{} : serve(datagram);
  };
  const test::Outcome watched = run("--timeout 1 watch 3 --every 0.1", "echo $$ >" + file("pid") + "; exec ");
  for (const char* part :
       {"slot 3\n", "0x05  0x12 -> 0x13  I fine gain: 18 -> 19\n", "no reply for slot 3", "answers again"}) {
    expect(watched, 0, part);
  }
  EXPECT_EQ(watched.text.find("18 -> 19"), watched.text.rfind("18 -> 19"));  // only once
}

TEST_F(Calibration, QamcalKnowsAWrongCall) {
  expectWrongCalls(
      ";fly;read;read 0;read 7;read 1.1;read 1 2;write 3;write 3 --i;write 3 --i 1 2 3;"
      "write 3 --i 1 2 3 100;write 3 --q 1 2 3 -1;write 3 --i 1 2 3 4 --i 1 2 3 4;save 3;"
      "watch 3 --every 0;--timeout 0 read 3;--timeout x read 3;--server nowhere read 3");
  EXPECT_EQ(requests_, 0);
  expectCalls({{"--help", 0, "Exit codes"}, {"read 3 >/dev/full", 1, ""}});
}

}  // namespace
}  // namespace client
