// The loading of the card's FPGA, as the configuration port sees it. bench.same_accesses compares all
// accesses of a good one.
#include <fmt/format.h>

#include <algorithm>

#include "hw/Qam_fpga_init.h"
#include "tests/module/chassis.h"

namespace test {
namespace {

constexpr u8 kSlot = 3;
constexpr u32 kPort = kMainBoard + 0x300 + 16 * kSlot;
constexpr u32 kRequest = kPort, kStatus = kPort + 6, kDone = kPort + 8;
const std::string kOpen = "port3.guard=49374", kClosed = "port3.guard=0";
constexpr u16 kStart = 0x3C5A;
constexpr const char* kFile = "/tffs0/K717_QAM/qam.bin";
const Bytes kStream = {0x80, 0x01, 0xA5};

class Loader : public ModuleTest {
 protected:
  Loader() {
    fake.onRead = [this](u32 address) -> std::optional<u16> {
      if (address == kRequest) ++attempt;
      if (address == kStatus) ++statusReads;
      if (address == faulty && attempt <= faultyAttempts) return faultyValue;
      if (address == kStatus) return fake.cell(kRequest) == kStart ? u16{0} : u16{0x0100};
      return address == kDone ? std::optional<u16>{0x8000} : std::nullopt;
    };
  }

  // A part at the port whose register reads this for that many attempts.
  u32 faulty = 0;
  u16 faultyValue = 0;
  int faultyAttempts = 0;
  int attempt = 0;
  int statusReads = 0;
};

TEST_F(Loader, TriesAFaultyPartTenTimes) {
  // A register and its value; how each failed attempt ends, after how many reads of the status.
  const std::tuple<u32, u16, const char*, int> rows[] = {
      {kRequest, 0, "fpgaCfg->fpga_ncfg is not 0x3c5a", 0},
      {kStatus, 0x100, "wait for fpgaCfg->fpga_stat too long, it's 1", 10001},
      {kStatus, 0, "wait for fpgaCfg->fpga_stat too long, it's 0", 10002},
      {kDone, 0, "fpgaCfg->fpga_done is 0", 2}};
  for (const auto& [reg, value, message, reads] : rows) {
    SCOPED_TRACE(message);
    std::tie(faulty, faultyValue) = std::tie(reg, value);
    for (faultyAttempts = 9; faultyAttempts <= 10; ++faultyAttempts) {
      const bool recovers = faultyAttempts == 9;
      attempt = statusReads = 0;
      fake.forget();
      EXPECT_EQ(cfg_qam_fpga(kSlot, kStream.data(), 3), recovers ? 0 : 1);
      Lines log;
      for (int tried = 1; tried <= 10; ++tried) {
        const bool fails = tried <= faultyAttempts;
        if (!fails || reg != kRequest)
          log.push_back(fmt::format("debug fpga_ncfg cfg ok, confNum is {}!\r\n", tried));
        if (fails) log.push_back(fmt::format("debug slotNo 3 {}\r\n", message));
      }
      if (!recovers) log.emplace_back("debug slotNo 3 fpgaCfg->config_protect is 0\r\n");
      EXPECT_EQ(fake.log, log);
      EXPECT_EQ(statusReads, faultyAttempts * reads + (recovers ? 2 : 0));
      EXPECT_EQ(std::count(fake.steps.begin(), fake.steps.end(), kOpen), 10);
      EXPECT_EQ(std::count(fake.steps.begin(), fake.steps.end(), kClosed), 1);
      EXPECT_TRUE(fake.steps.front() == kOpen && fake.steps.back() == kClosed) << "open between attempts";
    }
  }
}

TEST_F(Loader, KicksTheWatchdogEvery4096BytesAndSendsNoBitOfAnEmptyStream) {
  const Bytes stream(8193);
  const auto count = [&](const char* step) { return std::count(fake.steps.begin(), fake.steps.end(), step); };
  for (const auto& [size, bits, kicks] :
       {std::tuple{8193, 8 * 8193, 3}, {4096, 8 * 4096, 1}, {0, 0, 0}, {-1, 0, 0}}) {
    fake.forget();
    EXPECT_EQ(cfg_qam_fpga(kSlot, stream.data(), size), 0) << size;
    EXPECT_EQ(count("port3.data=0"), bits) << size;
    EXPECT_EQ(count("port3.dclk=1"), bits + 10) << size;
    EXPECT_EQ(count("dog"), kicks) << size;
  }
}

TEST_F(Loader, KeepsBufferAndFileWhetherThePartStartsOrNot) {
  writeFile(fake.flash.path.string() + kFile, kStream);
  const std::size_t open = filesIn("/proc/self/fd");
  EXPECT_EQ(QamfpgaInit(kSlot), 0);
  faulty = kDone;
  faultyAttempts = 100;
  EXPECT_EQ(QamfpgaInit(kSlot), -1);
  EXPECT_EQ(fake.blocks.size(), 2U);
  EXPECT_EQ(filesIn("/proc/self/fd"), open + 2);
}

TEST_F(Loader, GoesOnWithoutABitstream) {
  const std::string path = fake.flash.path.string() + kFile;
  const std::size_t open = filesIn("/proc/self/fd");
  const auto expectSaid = [&](const std::string& message) {
    fake.forget();
    EXPECT_EQ(QamfpgaInit(kSlot), 0);
    EXPECT_EQ(fake.log, (Lines{fmt::format("open {} rb+", kFile), "debug " + message + "\r\n"}));
    EXPECT_TRUE(fake.blocks.empty() && fake.steps.empty());
    EXPECT_EQ(filesIn("/proc/self/fd"), open) << message;
  };
  expectSaid("qam fpga can not open /tffs0/K717_QAM/qam.bin file!");
  writeFile(path, {});
  expectSaid("/tffs0/K717_QAM/qam.bin size error 0!");
  writeFile(path, Bytes(5000));
  fake.onCall = [&](std::string_view) { fs::resize_file(path, 2); };  // between two steps of the loader
  expectSaid("read 5000 bytes data from /tffs0/K717_QAM/qam.bin error!");
  fake.heapBlocks = 0;
  expectSaid("bb fpga config FPGA malloc 2 bytes memory failed!");
}

}  // namespace
}  // namespace test
