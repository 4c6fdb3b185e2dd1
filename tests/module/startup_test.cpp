// A card's registration with the chassis, its record, and the start-up of its slot.
#include <fmt/format.h>

#include <cstring>

#include "card/QamFpga.h"
#include "card/QamInit.h"
#include "hw/Cdce925.h"
#include "mpeg/section.h"
#include "tests/module/chassis.h"
#include "ts/qamBack.h"
#include "ts/qamIntr.h"
#include "ui/qamMenu.h"
#include "ui/qamSnmp.h"

namespace test {
namespace {

constexpr const char* kBitstream = "/tffs0/K717_QAM/qam.bin";

using StartUp = DeviceTest;

TEST_F(StartUp, RegistrationFillsTheDescriptorAndCallsTheChassisInOrder) {
  Qam_Init(2);
  EXPECT_EQ(fake.log, (Lines{"open /tffs0/para/card3.dat rb+", "debug slot 2 's para file is not exist\r\n",
                             "save 2", "insert 2", "menu 2 QAM card3", "configure bus 2 1 255",
                             "card type 2 3002", "variables 02000000 02010000 OutVars of Slot2 port0\n",
                             "variables 02010000 02020000 OutVars of Slot2 port1\n"}));
  EXPECT_TRUE(fake.steps.empty()) << "registration leaves the hardware alone";
  const chassis::card& card = *chassis::head;
  EXPECT_STREQ(card.cardName, "Qam Card 2");
  EXPECT_TRUE(card.slotNo == 2 && card.cardType == 27 && card.in_port_num == 0 && card.out_port_num == 2);
  EXPECT_TRUE(card.mibRegister == &qamMibRegister && card.menu == &qamMenuInit);
  EXPECT_TRUE(card.next == nullptr && card.trapRoutine == nullptr && card.Irq0Routine == nullptr &&
              card.Irq4Routine == nullptr && card.Irq5Routine == nullptr);
  EXPECT_EQ(card.varPtr, GetQamCardParaFromList(2));
  EXPECT_EQ(card.varSize, 203132U);
  std::vector<u32> ids;
  for (const chassis::bc_var* row = fake.variables; row->vid != 0; ids.push_back(row++->vid))
    EXPECT_TRUE(row->vnum == 1 && row->vtype == 1 && row->vrd == qam_ord && row->vwr == qam_owr &&
                row->vfind == nullptr);
  EXPECT_EQ(ids, (std::vector<u32>{0x2101, 0x2102, 0x3101, 0x3102, 0x3201}));
}

TEST_F(StartUp, SetsTheWindowAndStartsBothChannelsEachHaltedMeanwhile) {
  // By slot: the window, the rate of the ticks, and how many are in 10 ms, cut.
  using Row = std::tuple<u8, u32, int, int>;
  for (const auto& [slot, window, tickHz, delay] : {Row{0, 0x60000000, 100, 1},
                                                    {1, 0x60000200, 99, 0},
                                                    {2, 0x60000400, 1000, 10},
                                                    {5, 0x60002000, 199, 1}}) {
    fake.tickHz = tickHz;
    fake.queues.clear();
    Qam_Init(slot);
    QamCardPara& para = *GetQamCardParaFromList(slot);
    for (const int port : {0, 1}) {
      para.psiPkt[port][0] = {.pid = 0, .psiType = PAT, .counter = 0, .psiData = {0x47, 0x40}};
      para.pktNum[port][PAT] = 1;
    }
    fake.forget();
    fake.onCall = [&, number = slot](std::string_view call) {
      const auto& halted = qam_is_setting_psi[number];
      if (call == "malloc") fake.log.push_back(fmt::format("node, halted {} {}", halted[0], halted[1]));
    };
    QamInit(slot);
    // Settling; two waits for each of three resets, one before the clock generator's row.
    Lines expected = Lines{fmt::format("open {} rb+", kBitstream),
                           fmt::format("debug qam fpga can not open {} file!\r\n", kBitstream)} +
                     Lines(8, fmt::format("delay {}", delay));
    for (const int port : {0, 1}) {
      expected =
          expected + Lines{"queue 256 4 1", fmt::format("node, halted {} {}", 1 - port, port),
                           fmt::format("spawn qam{0}PSISend{1} 212 0 4096 ({0} {1} 00000000)", slot, port),
                           fmt::format("route {} {}", slot, port)};
    }
    EXPECT_EQ(fake.log, expected);
    std::vector<std::ptrdiff_t> firstSteps;
    for (const char* device : {"nrst", "cdce925", "ad9775", "ad7414", "ext_ad7414", "qam_mode"}) {
      const auto isOf = [=](const std::string& step) { return step.starts_with(device); };
      firstSteps.push_back(std::ranges::find_if(fake.steps, isOf) - fake.steps.begin());
    }
    EXPECT_TRUE(std::ranges::is_sorted(firstSteps));
    Bytes clock;
    for (u16 reg = 0; reg < 0x30; ++reg) clock.push_back(CdceRegRead(slot, reg, 1));
    EXPECT_EQ(mpeg::crc32(clock), 0xD290DD2EU) << "registers of the clock generator";
    EXPECT_EQ(fake.addressOf(QamFpgaIf[slot]), window);
    for (int tick = 0; tick <= 6 * slot + 2; ++tick) qamIntr(slot);
    for (const std::size_t port : {0U, 1U}) EXPECT_EQ(fake.queues[port]->messages, std::vector<u32>{0});
  }
}

TEST_F(StartUp, AnFpgaThatDoesNotStartLeavesTheSlotIdle) {
  writeFile(fake.flash.path.string() + kBitstream, Bytes{0x12});
  Qam_Init(4);
  QamInit(4);
  EXPECT_EQ((Lines{fake.log.end() - 2, fake.log.end()}),
            (Lines{"lcd 0 0 0 Loading Card4", "lcd 3 0 0 Config Error"}));
  EXPECT_EQ(QamFpgaIf[4], nullptr);
  EXPECT_TRUE(fake.queues.empty() && fake.tasks.empty());
}

// ---- The record ----

constexpr std::size_t kRecordSize = 203132;

// The clock table is taken over: headend/firmware/modulator_test.cpp judges the clocks. The CRC is for
// registers on which no clock depends.
Bytes defaultRecord(u8 slot, const QamCardPara& loaded) {
  const auto record = std::make_unique<QamCardPara>();
  record->cardType = 27;
  record->slotNo = slot;
  record->version = 'd';
  record->qam_para.QamVersion = '0';
  record->qam_para.lo1freq = 1090000000;
  record->qam_para.rflevel = 1000;
  record->qam_para.rfreq = 554000;
  record->qam_para.symbolrate = 6875;
  record->qam_para.qammode = 5;
  record->qam_para.power = 15;
  std::copy(std::begin(loaded.Cd925_para), std::end(loaded.Cd925_para), record->Cd925_para);
  const auto* table = reinterpret_cast<const u8*>(record->Cd925_para);
  EXPECT_EQ(mpeg::crc32({table, sizeof record->Cd925_para}), 0xC5510065U) << "the clock table";
  for (auto& intervals : record->Interval) std::fill_n(intervals, 8, u16{300});
  std::memset(record->pidMap, 0xFF, sizeof record->pidMap);
  std::memset(record->psiPkt, 0xFF, sizeof record->psiPkt);
  const u8* bytes = reinterpret_cast<const u8*>(record.get());
  return {bytes, bytes + kRecordSize};
}

// The first bytes of a saved record with no two like parts.
Bytes saved(std::size_t size, u8 type = 27, u8 version = 'd') {
  Bytes file(kRecordSize);
  u32 state = 1;
  for (u8& byte : file) byte = static_cast<u8>((state = state * 1664525 + 1013904223) >> 24);
  std::copy_n(Bytes{type, 3, version}.begin(), 3, file.begin());
  file.resize(size);
  return file;
}

TEST_F(StartUp, ARecordIsTheFileOrTheDefaults) {
  const std::size_t open = filesIn("/proc/self/fd");
  // Loads the slot's record from such a file; the message if the file is rejected.
  const auto expectLoaded = [&](u8 slot, const std::optional<Bytes>& file, const std::string& message = "") {
    SCOPED_TRACE(fmt::format("slot {} {}", slot, message));
    const std::string path = fmt::format("/tffs0/para/card{}.dat", slot + 1);
    Lines calls = {"open " + path + " rb+"};
    if (!message.empty()) calls = calls + Lines{"debug " + message + "\r\n", fmt::format("save {}", slot)};
    if (file) writeFile(fake.flash.path.string() + path, *file);
    fake.forget();
    const QamCardPara* record = Qam_create_para(slot);
    EXPECT_EQ(fake.log, calls);
    EXPECT_EQ(fake.checks.size(), slot < 2 ? 0U : 1U);
    Bytes expected(kRecordSize, 0xA7);  // the heap's fill byte
    if (message.empty()) std::copy_n(file->begin(), std::min(file->size(), kRecordSize), expected.begin());
    if (!message.empty()) expected = defaultRecord(slot, *record);
    const auto differs = std::mismatch(expected.begin(), expected.end(), reinterpret_cast<const u8*>(record));
    EXPECT_EQ(differs.first - expected.begin(), kRecordSize) << "the place of the first difference";
    EXPECT_EQ(filesIn("/proc/self/fd"), open);
  };
  expectLoaded(5, {}, "slot 5 's para file is not exist");
  expectLoaded(3, saved(7), "read ds3 card 3's para error, to load default");
  expectLoaded(0, saved(8));
  expectLoaded(1, saved(kRecordSize, 26), "slot 1 card's last saved para is not qam para,to load default!");
  expectLoaded(0, saved(kRecordSize, 27, 'e'),
               "slot 0 card's last saved para is not qam para,to load default!");
  expectLoaded(4, saved(100001));
  expectLoaded(2, saved(2 * kRecordSize));
  fake.forget();
  fake.heapBlocks = 0;
  EXPECT_EQ(Qam_create_para(1), nullptr);
  EXPECT_EQ(fake.log, Lines{"debug qam card 1 malloc memory failed!\r\n"});
  Qam_Init(1);
  EXPECT_EQ(fake.log.size(), 1U) << "a card that cannot be described is not registered";
}

}  // namespace
}  // namespace test
