// The loading of the card's FPGA, as the configuration port sees it.
#include <fmt/format.h>

#include <algorithm>

#include "hw/Qam_fpga_init.h"
#include "tests/module/chassis.h"

namespace test {
namespace {

constexpr u8 kSlot = 3;
constexpr u32 kPort = kMainBoard + 0x300 + 16 * kSlot;
constexpr u32 kRequest = kPort, kClock = kPort + 2, kData = kPort + 4, kStatus = kPort + 6, kDone = kPort + 8,
              kGuard = kPort + 10;
constexpr u16 kStart = 0x3C5A, kRelease = 0xC3A5, kOpen = 0xC0DE;
constexpr const char* kFile = "/tffs0/K717_QAM/qam.bin";
const Bytes kStream = {0x80, 0x01, 0xA5};
const std::string kBits = "100000000000000110100101";

enum class Fault { kNone, kDeaf, kStatusStays1, kStatusStays0, kNeverDone };

// A part behind the port, whose fault lasts for so many attempts.
struct Part {
  Fault fault = Fault::kNone;
  int lasts = 0;
  int attempt = 0;
  u16 request = 0;

  void written(u32 address, u16 value) {
    if (address != kRequest) return;
    if (value == kStart) ++attempt;
    request = value;
  }
  u16 read(u32 address) const {
    const auto has = [this](Fault which) { return fault == which && attempt <= lasts; };
    if (address == kRequest) return has(Fault::kDeaf) ? u16{0} : request;
    if (address == kDone) return has(Fault::kNeverDone) ? u16{0} : u16{0x8000};
    const bool high = request == kStart ? has(Fault::kStatusStays1) : !has(Fault::kStatusStays0);
    return high ? u16{0x0100} : u16{0};
  }
};

class Loader : public ModuleTest {
 protected:
  Loader() {
    fake.onWrite = [this](u32 address, u16 value) { part.written(address, value); };
    fake.onRead = [this](u32 address) { return part.read(address); };
  }
  std::string bitsSent() const {
    std::string bits;
    for (const Access& a : fake.accesses)
      if (a.direction == 'w' && a.address == kData) bits += static_cast<char>('0' + a.value);
    return bits;
  }

  Part part;
};

TEST_F(Loader, ClocksTheStreamInAccessByAccess) {
  std::vector<Access> expected = {{'w', kGuard, kOpen},    {'w', kClock, 0},  {'w', kRequest, kStart},
                                  {'r', kRequest, kStart}, {'r', kStatus, 0}, {'w', kRequest, kRelease},
                                  {'r', kStatus, 0x100}};
  for (const char bit : kBits + "..........") {  // ten closing clocks
    if (bit != '.') expected.push_back({'w', kData, static_cast<u16>(bit - '0')});
    expected.push_back({'w', kClock, 1});
    expected.push_back({'w', kClock, 0});
  }
  expected.push_back({'r', kDone, 0x8000});
  expected.push_back({'w', kGuard, 0});
  EXPECT_EQ(cfg_qam_fpga(kSlot, kStream.data(), 3), 0);
  EXPECT_EQ(fake.accesses, expected);
  EXPECT_EQ(fake.log, Lines{"debug fpga_ncfg cfg ok, confNum is 1!\r\n"});
}

TEST_F(Loader, TriesAFaultyPartTenTimes) {
  constexpr const char* kDeaf = "debug slotNo 3 fpgaCfg->fpga_ncfg is not 0x3c5a\r\n";
  constexpr const char* kStays1 = "debug slotNo 3 wait for fpgaCfg->fpga_stat too long, it's 1\r\n";
  constexpr const char* kStays0 = "debug slotNo 3 wait for fpgaCfg->fpga_stat too long, it's 0\r\n";
  constexpr const char* kUndone = "debug slotNo 3 fpgaCfg->fpga_done is 0\r\n";
  struct Row {
    const char* name;
    Part part;
    const char* message;  // of each failed attempt
    int attempts, result;
    long statusReads;
    int streams;  // sent whole, every one from the first byte
  };
  const Row rows[] = {{"no request", {Fault::kDeaf, 10}, kDeaf, 10, 1, 0, 0},
                      {"no request at first", {Fault::kDeaf, 9}, kDeaf, 10, 0, 2, 1},
                      {"status stays 1", {Fault::kStatusStays1, 10}, kStays1, 10, 1, 100010, 0},
                      {"status stays 0", {Fault::kStatusStays0, 10}, kStays0, 10, 1, 100020, 0},
                      {"status stays 0 once", {Fault::kStatusStays0, 1}, kStays0, 2, 0, 10002 + 2, 1},
                      {"not done", {Fault::kNeverDone, 10}, kUndone, 10, 1, 20, 10},
                      {"not done at first", {Fault::kNeverDone, 9}, kUndone, 10, 0, 20, 10}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    part = row.part;
    fake.forget();
    EXPECT_EQ(cfg_qam_fpga(kSlot, kStream.data(), 3), row.result);

    Lines log;
    std::vector<u16> guard;
    for (int attempt = 1; attempt <= row.attempts; ++attempt) {
      guard.push_back(kOpen);
      if (row.part.fault != Fault::kDeaf || attempt > row.part.lasts)
        log.push_back(fmt::format("debug fpga_ncfg cfg ok, confNum is {}!\r\n", attempt));
      if (attempt < row.attempts || row.result != 0) log.emplace_back(row.message);
    }
    if (row.result != 0) log.emplace_back("debug slotNo 3 fpgaCfg->config_protect is 0\r\n");
    guard.push_back(0);
    EXPECT_EQ(fake.log, log);

    std::vector<u16> guardWritten;
    long statusReads = 0;
    for (const Access& a : fake.accesses) {
      if (a.address == kGuard) guardWritten.push_back(a.value);
      statusReads += a.address == kStatus ? 1 : 0;
    }
    EXPECT_EQ(guardWritten, guard) << "open between attempts, closed at the end";
    EXPECT_EQ(fake.accesses.back(), (Access{'w', kGuard, 0}));
    EXPECT_EQ(statusReads, row.statusReads);
    std::string streams;
    for (int i = 0; i < row.streams; ++i) streams += kBits;
    EXPECT_EQ(bitsSent(), streams);
  }
}

TEST_F(Loader, KeepsBufferAndFileWhetherThePartStartsOrNot) {
  fake.files[kFile] = kStream;
  EXPECT_EQ(QamfpgaInit(kSlot), 0);
  part = {Fault::kNeverDone, 100};
  EXPECT_EQ(QamfpgaInit(kSlot), -1);
  EXPECT_EQ(fake.blocks.size(), 2U);
  EXPECT_EQ(fake.openFiles.size(), 2U);
  EXPECT_EQ(bitsSent().size(), 11 * kBits.size());
}

TEST_F(Loader, GoesOnWithoutABitstream) {
  struct Row {
    const char* message;
    std::optional<Bytes> file;
    u32 unreadable = 0;
    int heapBlocks = 1;
  };
  const Row rows[] = {
      {"qam fpga can not open /tffs0/K717_QAM/qam.bin file!\r\n", {}},
      {"/tffs0/K717_QAM/qam.bin size error 0!\r\n", Bytes{}},
      {"bb fpga config FPGA malloc 3 bytes memory failed!\r\n", kStream, 0, 0},
      {"read 3 bytes data from /tffs0/K717_QAM/qam.bin error!\r\n", kStream, 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    fake.files.clear();
    if (row.file) fake.files[kFile] = *row.file;
    fake.unreadableTail = row.unreadable;
    fake.heapBlocks = row.heapBlocks;
    fake.log.clear();
    EXPECT_EQ(QamfpgaInit(kSlot), 0);
    Lines expected = {fmt::format("open {} rb+", kFile), fmt::format("debug {}", row.message)};
    if (row.file) expected.push_back(fmt::format("close {}", kFile));
    EXPECT_EQ(fake.log, expected);
    EXPECT_TRUE(fake.blocks.empty() && fake.accesses.empty());
  }
}

}  // namespace
}  // namespace test
