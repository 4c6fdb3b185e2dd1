// The loading of the card's FPGA, as the configuration port sees it.
#include <fmt/format.h>

#include <algorithm>

#include "hw/Qam_fpga_init.h"
#include "tests/module/chassis.h"

namespace test {

constexpr u8 kSlot = 3;
constexpr u32 kPort = kMainBoard + 0x300 + 16 * kSlot;
constexpr u32 kRequest = kPort, kClock = kPort + 2, kData = kPort + 4, kStatus = kPort + 6, kDone = kPort + 8,
              kGuard = kPort + 10;

// A port with a part behind it, whose faults last for so many attempts.
struct Part {
  int deafFor = 0;        // the request does not read back
  int neverFallsFor = 0;  // the status stays 1
  int neverRisesFor = 0;  // the status stays 0
  int undoneFor = 0;      // done stays 0
  int statusPolls = 1;    // the status has changed at this read

  int attempt = 0, polls = 0;
  u16 request = 0;

  void written(u32 address, u16 value) {
    if (address != kRequest) return;
    if (value == 0x3C5A) ++attempt;
    polls = 0;
    request = value;
  }
  u16 read(u32 address) {
    if (address == kRequest) return attempt <= deafFor ? u16{0} : request;
    if (address == kDone) return attempt <= undoneFor ? u16{0} : u16{0x8000};
    const bool inReset = request == 0x3C5A;
    const bool stuck = attempt <= (inReset ? neverFallsFor : neverRisesFor);
    const bool changed = !stuck && ++polls >= statusPolls;
    return inReset != changed ? u16{0x0100} : u16{0};
  }
};

struct FaultRow {
  const char* name;
  Part part;
  const char* message;  // of each failed attempt
  int attempts, result;
  long statusReads;
  std::size_t streams;  // sent whole
};

namespace {

constexpr const char* kFile = "/tffs0/K717_QAM/qam.bin";
const Bytes kStream = {0x80, 0x01, 0xA5};
const std::string kBits = "100000000000000110100101";

class Loader : public ModuleTest {
 protected:
  explicit Loader(const Part& described = {}) : part(described) {
    fake.onWrite = [this](u32 address, u16 value) { part.written(address, value); };
    fake.onRead = [this](u32 address) { return part.read(address); };
  }
  std::vector<u16> writesTo(u32 address) const {
    std::vector<u16> values;
    for (const Access& a : fake.accesses) {
      if (a.direction == 'w' && a.address == address) values.push_back(a.value);
    }
    return values;
  }
  auto readsOf(u32 address) const {
    return std::count_if(fake.accesses.begin(), fake.accesses.end(),
                         [&](const Access& a) { return a.direction == 'r' && a.address == address; });
  }

  Part part;
};

TEST_F(Loader, ClocksTheStreamInAccessByAccess) {
  std::vector<Access> expected = {{'w', kGuard, 0xC0DE},   {'w', kClock, 0},  {'w', kRequest, 0x3C5A},
                                  {'r', kRequest, 0x3C5A}, {'r', kStatus, 0}, {'w', kRequest, 0xC3A5},
                                  {'r', kStatus, 0x100}};
  const auto pulse = [&expected] {
    expected.push_back({'w', kClock, 1});
    expected.push_back({'w', kClock, 0});
  };
  for (const char bit : kBits) {
    expected.push_back({'w', kData, static_cast<u16>(bit - '0')});
    pulse();
  }
  for (int i = 0; i < 10; ++i) pulse();
  expected.push_back({'r', kDone, 0x8000});
  expected.push_back({'w', kGuard, 0});

  EXPECT_EQ(cfg_qam_fpga(kSlot, kStream.data(), 3), 0);
  EXPECT_EQ(fake.accesses, expected);
  EXPECT_EQ(fake.log, Lines{"debug fpga_ncfg cfg ok, confNum is 1!\r\n"});
}

class FaultyPart : public Loader, public ::testing::WithParamInterface<FaultRow> {
 protected:
  FaultyPart() : Loader(GetParam().part) {}
};

constexpr const char* kDeaf = "debug slotNo 3 fpgaCfg->fpga_ncfg is not 0x3c5a\r\n";
constexpr const char* kStays1 = "debug slotNo 3 wait for fpgaCfg->fpga_stat too long, it's 1\r\n";
constexpr const char* kStays0 = "debug slotNo 3 wait for fpgaCfg->fpga_stat too long, it's 0\r\n";
constexpr const char* kUndone = "debug slotNo 3 fpgaCfg->fpga_done is 0\r\n";

INSTANTIATE_TEST_SUITE_P(
    Fault, FaultyPart,
    ::testing::Values(FaultRow{"NoRequest", {.deafFor = 10}, kDeaf, 10, 1, 0, 0},
                      FaultRow{"NoRequestAtFirst", {.deafFor = 9}, kDeaf, 10, 0, 2, 1},
                      FaultRow{"StatusStays1", {.neverFallsFor = 10}, kStays1, 10, 1, 100010, 0},
                      FaultRow{"StatusStays1Once", {.neverFallsFor = 1}, kStays1, 2, 0, 10001 + 2, 1},
                      FaultRow{"StatusStays0", {.neverRisesFor = 10}, kStays0, 10, 1, 100020, 0},
                      FaultRow{"StatusStays0Once", {.neverRisesFor = 1}, kStays0, 2, 0, 10002 + 2, 1},
                      FaultRow{"LastPoll", {.statusPolls = 10001}, "", 1, 0, 20002, 1},
                      FaultRow{"OnePollTooMany", {.statusPolls = 10002}, kStays1, 10, 1, 100010, 0},
                      FaultRow{"NotDone", {.undoneFor = 10}, kUndone, 10, 1, 20, 10},
                      FaultRow{"NotDoneAtFirst", {.undoneFor = 9}, kUndone, 10, 0, 20, 10}),
    kRowName);

TEST_P(FaultyPart, IsTriedTenTimes) {
  const FaultRow& row = GetParam();
  EXPECT_EQ(cfg_qam_fpga(kSlot, kStream.data(), 3), row.result);

  Lines expected;
  for (int attempt = 1; attempt <= row.attempts; ++attempt) {
    if (attempt > row.part.deafFor) {
      expected.push_back(fmt::format("debug fpga_ncfg cfg ok, confNum is {}!\r\n", attempt));
    }
    if (attempt < row.attempts || row.result != 0) expected.emplace_back(row.message);
  }
  if (row.result != 0) expected.emplace_back("debug slotNo 3 fpgaCfg->config_protect is 0\r\n");
  EXPECT_EQ(fake.log, expected);

  std::vector<u16> guard(static_cast<std::size_t>(row.attempts), 0xC0DE);
  guard.push_back(0);
  EXPECT_EQ(writesTo(kGuard), guard) << "open between attempts, closed at the end";
  EXPECT_EQ(fake.accesses.back(), (Access{'w', kGuard, 0}));
  EXPECT_EQ(readsOf(kStatus), row.statusReads);

  std::string bits, streams;
  for (const u16 bit : writesTo(kData)) bits += static_cast<char>('0' + bit);
  for (std::size_t i = 0; i < row.streams; ++i) streams += kBits;
  EXPECT_EQ(bits, streams) << "every attempt from the first byte";
}

TEST_F(Loader, KeepsBufferAndFileWhetherThePartStartsOrNot) {
  fake.files[kFile] = kStream;
  EXPECT_EQ(QamfpgaInit(kSlot), 0);
  part.undoneFor = 100;
  EXPECT_EQ(QamfpgaInit(kSlot), -1);
  EXPECT_EQ(fake.blocks.size(), 2U);
  EXPECT_EQ(fake.openFiles.size(), 2U);
  EXPECT_EQ(writesTo(kData).size(), 11 * kBits.size());
}

TEST_F(Loader, GoesOnWithoutABitstream) {
  struct Row {
    const char* message;
    bool exists;
    Bytes content;
    u32 unreadable = 0;
    int heapBlocks = 1;
  };
  const Row rows[] = {
      {"qam fpga can not open /tffs0/K717_QAM/qam.bin file!\r\n", false, {}},
      {"/tffs0/K717_QAM/qam.bin size error 0!\r\n", true, {}},
      {"bb fpga config FPGA malloc 3 bytes memory failed!\r\n", true, kStream, 0, 0},
      {"read 3 bytes data from /tffs0/K717_QAM/qam.bin error!\r\n", true, kStream, 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.message);
    fake.files.clear();
    if (row.exists) fake.files[kFile] = row.content;
    fake.unreadableTail = row.unreadable;
    fake.heapBlocks = row.heapBlocks;
    fake.log.clear();
    EXPECT_EQ(QamfpgaInit(kSlot), 0);
    Lines expected = {fmt::format("open {} rb+", kFile), fmt::format("debug {}", row.message)};
    if (row.exists) expected.push_back(fmt::format("close {}", kFile));
    EXPECT_EQ(fake.log, expected);
    EXPECT_EQ(fake.blocks.size(), 0U);
    EXPECT_TRUE(fake.accesses.empty());
  }
}

}  // namespace
}  // namespace test
