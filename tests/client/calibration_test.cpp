// The calibration datagram, the client of the service, and qamcal, against a service made of bytes.
#include "client/calibration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>

#include "tests/client/fake_server.h"
#include "tests/client/program.h"

namespace client {
namespace {

using namespace std::chrono_literals;
using test::expect;
using test::expectWrongCalls;
using test::Outcome;
using Datagrams = std::vector<Bytes>;

const Bytes kCard = {0x04, 1, 2, 3, 4, 0x12, 0x0F, 0x80, 0x02, 0x0C, 0x0E, 0, 0x80};

// --- The datagram and the registers ---

// Clients of other makers send these bytes too: they are an interface.
TEST(CalibrationPacket, HasItsFieldsInTheirPlaces) {
  const CalibrationPacket packet{.command = CalibrationCommand::kWrite,
                                 .slot = 5,
                                 .registers = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}};
  const Bytes wire = {2, 5, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
  const auto encoded = encode(packet);
  EXPECT_EQ(Bytes(encoded.begin(), encoded.end()), wire);
  const auto decoded = decodeCalibration(wire);
  ASSERT_TRUE(decoded);
  EXPECT_EQ(encode(*decoded), encoded);
  for (const std::size_t size : {0U, 1U, 14U, 16U, 100U}) EXPECT_FALSE(decodeCalibration(Bytes(size, 1)));
  for (const Bytes& other : {Bytes(15, 0), Bytes(15, 3), Bytes(15, 255)})
    EXPECT_FALSE(decodeCalibration(other));
}

TEST(DacFields, StandWhereTheDataSheetPutsThem) {
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
    const auto field =
        std::ranges::find(dacFields(), std::string_view(row.field), [](auto& f) { return f.name; });
    ASSERT_NE(field, dacFields().end()) << row.field;
    EXPECT_EQ(fieldText(row.registers, *field), row.text) << row.field;
  }
  for (std::size_t bit = 0; bit < 8 * kDacRegisters; ++bit) {  // no bit is in two fields
    DacRegisters registers{};
    registers.at(bit / 8) = static_cast<u8>(1U << bit % 8);
    EXPECT_LE(differingFields(registers, {}).size(), 1U) << "bit " << bit;
  }
}

// --- A service that does as it is told ---

class Qamcal : public ::testing::Test {
 public:
  Qamcal() : server_([this](const Bytes& datagram) { return answer(datagram); }) {
    std::string pattern = ::testing::TempDir() + "qamcalXXXXXX";
    folder_ = mkdtemp(pattern.data());
  }
  ~Qamcal() override { std::filesystem::remove_all(folder_); }

  Outcome run(const std::string& arguments, const std::string& before = "") const {
    return test::runProgram(before + QAMCAL + " --server " + server_.address() + " " + arguments);
  }
  std::string file(const char* name) const { return folder_ + "/" + name; }
  std::string write(const char* name, const std::string& text) const {
    std::ofstream(file(name)) << text;
    return file(name);
  }
  std::string contents(const char* name) const {
    std::ifstream stream(file(name));
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  Datagrams writes() {
    const std::scoped_lock lock(mutex_);
    Datagrams all;
    std::ranges::copy_if(log_, std::back_inserter(all), [](const Bytes& d) { return d.at(0) == 2; });
    return all;
  }
  std::size_t requests() {
    const std::scoped_lock lock(mutex_);
    return log_.size();
  }
  // From here on, in place of what the service would answer; nothing: as it would.
  void instead(std::function<std::optional<Datagrams>(const Bytes&)> special) {
    const std::scoped_lock lock(mutex_);
    log_.clear();
    special_ = std::move(special);
  }

  Bytes dac_ = kCard;  // of slot 3

 private:
  Datagrams answer(const Bytes& datagram) {
    const std::scoped_lock lock(mutex_);
    log_.push_back(datagram);
    if (special_) {
      if (auto replies = special_(datagram)) return *std::move(replies);
    }
    if (datagram.size() != 15 || datagram[1] != 2) return {};
    if (datagram[0] == 1) return {reply()};
    if (datagram[0] == 2) dac_.assign(datagram.begin() + 2, datagram.end());
    return {};
  }

 protected:
  Bytes reply() const {
    Bytes reply = {1, 2};
    reply.insert(reply.end(), dac_.begin(), dac_.end());
    return reply;
  }
  std::string folder_;
  std::mutex mutex_;
  Datagrams log_;
  std::function<std::optional<Datagrams>(const Bytes&)> special_;
  test::FakeUdpServer server_;
};

// --- The client ---

TEST_F(Qamcal, ClientTakesOnlyTheReplyToItsOwnQuestion) {
  const CalibrationClient client(server_.address(), {.timeout = 60s, .repeat = 50ms, .settle = 0ms});
  instead([&](const Bytes&) -> std::optional<Datagrams> {
    if (log_.size() < 3) return Datagrams{};  // lost: it asks again
    Bytes other(15, 7);
    other[0] = 1;
    const Datagrams foreign = {{}, {1, 2}, Bytes(14, 2), Bytes(16, 1), other, Bytes(15, 2)};
    Datagrams replies = foreign;
    replies.push_back(reply());
    replies.push_back(reply());  // late, of the question before
    return replies;
  });
  const auto asBytes = [](const DacRegisters& r) { return Bytes(r.begin(), r.end()); };
  EXPECT_EQ(asBytes(client.read(2)), kCard);
  instead(nullptr);
  client.write(2, DacRegisters{9});
  EXPECT_EQ(client.read(2), DacRegisters{9});
}

TEST_F(Qamcal, ClientSaysThatNoReplyCame) {
  const CalibrationClient client(server_.address(), {.timeout = 150ms, .repeat = 1s, .settle = 0ms});
  instead([](const Bytes&) { return Datagrams{{1, 2, 3}}; });
  try {
    client.read(2);
    FAIL();
  } catch (const LinkError& e) {
    const std::string start = server_.address() + ": no reply for slot 3 within 150 ms";
    EXPECT_EQ(std::string(e.what()).substr(0, start.size()), start);
  }
}

// --- The program ---

TEST_F(Qamcal, WritesWhatIsGivenAndKeepsTheRest) {
  expect(run("read 3"), 0, "0x05  0x12  I fine gain: 18\n");
  expect(run("--json read 3"), 0, "\"i_offset\": 514");
  const Outcome written = run("write 3 --i 0x13 0F 80 02 --q 1 2 3 4");
  expect(written, 0, "0x05  0x12 -> 0x13  I fine gain: 18 -> 19\n  0x09");
  expect(written, 0, "not the EEPROM");
  const Bytes wire = {2, 2, 4, 1, 2, 3, 4, 0x13, 0x0F, 0x80, 0x02, 1, 2, 3, 4};
  EXPECT_EQ(writes(), Datagrams{wire});
  EXPECT_EQ(dac_, Bytes(wire.begin() + 2, wire.end()));
  expect(run("write 3 --common 4 1 2 3 4"), 0, "does not show that the request came through");
}

TEST_F(Qamcal, FailsWhenTheReadBackDoes) {
  struct Row {
    const char* fault;
    std::function<void()> onWrite;
    bool answersThen;
    const char* part;
  };
  const Row rows[] = {
      {"lost", [] {}, true, "the request was lost"},
      {"one bit", [&] { dac_[9] ^= 1U; }, true, "0x09  0x01 -> 0x0d  Q fine gain: 1 -> 13\nread again"},
      {"silence", [] {}, false, "written, but it could not be read back: "},
  };
  for (const Row& row : rows) {
    dac_ = kCard;
    instead([&](const Bytes& request) -> std::optional<Datagrams> {
      if (request[0] == 2) row.onWrite();
      const bool silent = request[0] == 2 || (log_.size() > 1 && !row.answersThen);
      return silent ? std::optional(Datagrams{}) : std::nullopt;
    });
    SCOPED_TRACE(row.fault);
    expect(run("--timeout 1 write 3 --q 1 0e 00 80"), 1, row.part);
  }
  instead(nullptr);
  expect(run("--timeout 0.2 write 2 --common 4 0 0 0 0 --i 1 2 3 4 --q 1 2 3 4"), 1, "no reply for slot 2");
  EXPECT_TRUE(writes().empty());
}

TEST_F(Qamcal, PutsTheSerialPortAtRiskOnlyByForce) {
  for (const char* common : {"80", "40", "20", "ff"}) {
    expect(run(std::string("write 3 --common ") + common + " 0 0 0 0"), 1, "nothing was written");
  }
  dac_[0] = 0xE4;  // kept, so written again
  expect(run("write 3 --i 1 2 3 4"), 1, "data direction, bit order, software reset");
  const std::string risky = file("risky.json");
  expect(run("save 3 " + risky), 0, "note: 0xe4 in register 0x00");
  expect(run("restore 3 " + risky), 1, "--force");
  EXPECT_TRUE(writes().empty());
  expect(run("write 3 --force --common 1f 0 0 0 0"), 0, "reads back the same");
  expect(run("restore 3 --force " + risky), 0, "reads back the same");
  EXPECT_EQ(dac_[0], 0xE4);
  dac_ = Bytes(13, 0xFF);
  expect(run("read 3"), 0, "the EEPROM is blank");
}

TEST_F(Qamcal, RestoresWhatItSaved) {
  expect(run("save 3 " + file("card.json")), 0, "");
  dac_ = Bytes(13, 0);
  expect(run("restore 3 " + file("card.json")), 0, "0x07  0x00 -> 0x80  I offset: 0 -> 514");
  EXPECT_EQ(dac_, kCard);
  const std::string saved = contents("card.json");
  expect(run("--timeout 0.2 save 2 " + file("card.json")), 1, "no reply");
  EXPECT_EQ(contents("card.json"), saved);
  expect(run("save 3 " + file("absent/card.json")), 1, "cannot be written");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder_), {}), 1);
}

TEST_F(Qamcal, RestoresNoFileThatItDoubts) {
  const std::string good =
      R"({"dac_calibration": 1, "common": ["4","1","2","3","4"], )"
      R"("i": ["12","0f","80","02"], "q": ["0c","0e","00","80"], "fields": {"pll": "off"}})";
  const auto with = [&](const std::string& from, const std::string& to) {
    std::string text = good;
    return text.replace(text.find(from), from.size(), to);
  };
  struct Row {
    std::string text;
    const char* part;
  };
  const Row rows[] = {{"", "is not JSON"},
                      {good.substr(0, good.size() - 1), "is not JSON"},
                      {"[1]", "is no calibration"},
                      {with("\": 1", "\": 2"), "is no calibration"},
                      {with("\"i\"", "\"j\""), R"("i" must have 4 bytes)"},
                      {with("\"4\",", ""), R"("common" must have 5 bytes)"},
                      {with("\"0e\"", "14"), R"("q" must hold texts)"},
                      {with("0e", "0x100"), "'0x100' is no byte"},
                      {with("0e", "-1"), "'-1' is no byte"},
                      {with("0e", "0x"), "'0x' is no byte"},
                      {with("off", "on"), R"("pll" is not what the bytes say ("off"))"},
                      {std::string(70000, ' ') + good, "too long"}};
  for (const Row& row : rows) expect(run("restore 3 " + write("bad.json", row.text)), 1, row.part);
  expect(run("restore 3 " + file("absent.json")), 1, "absent.json: cannot be read");
  expect(run("restore 3 " + folder_), 1, "cannot be read");
  EXPECT_EQ(requests(), 0U);
  expect(run("restore 3 " + write("good.json", good)), 0, "was not saved from slot 3");
}

TEST_F(Qamcal, WatchesUntilItIsInterrupted) {
  instead([&](const Bytes&) -> std::optional<Datagrams> {
    const std::size_t n = log_.size();
    if (n == 3) dac_[5] = 0x13;
    if (n == 4) return Datagrams{};
    if (n == 6) kill(std::stoi(contents("pid")), SIGINT);
    return std::nullopt;
  });
  const Outcome watched = run("--timeout 1 watch 3 --every 0.1", "echo $$ >" + file("pid") + "; exec ");
  expect(watched, 0, "slot 3\n");
  expect(watched, 0, "0x05  0x12 -> 0x13  I fine gain: 18 -> 19\n");
  EXPECT_EQ(watched.text.find("18 -> 19"), watched.text.rfind("18 -> 19"));  // once
  expect(watched, 0, "no reply for slot 3");
  expect(watched, 0, "answers again");
}

TEST_F(Qamcal, KnowsAWrongCall) {
  expectWrongCalls([&](const std::string& call) { return run(call); },
                   ";fly;read;read 0;read 7;read 1.1;read 1 2;write 3;write 3 --i;write 3 --i 1 2 3;"
                   "write 3 --i 1 2 3 4 5;write 3 --i 1 2 3 100;write 3 --i 1 2 3 g;write 3 --q 1 2 3 -1;"
                   "write 3 --common 1 2 3 4;write 3 --i 1 2 3 4 --i 1 2 3 4;save 3;restore;"
                   "watch 3 --every 0;--timeout 0 read 3;--timeout x read 3;--server nowhere read 3");
  EXPECT_EQ(requests(), 0U);
  expect(run("--help"), 0, "Exit codes");
  EXPECT_EQ(run("read 3 >/dev/full").code, 1);
}

}  // namespace
}  // namespace client
