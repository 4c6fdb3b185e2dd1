// The parameter record: its defaults, and its loading from files good and bad.
#include <fmt/format.h>

#include <cstring>

#include "tests/module/chassis.h"

namespace test {
namespace {

using Record = ModuleTest;

constexpr std::size_t kRecordSize = 203132;

// The clock table is taken over: its registers are judged by the clock that they give.
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

TEST_F(Record, IsTheFileOrTheDefaults) {
  constexpr const char* kShort = "read ds3 card {}'s para error, to load default";
  constexpr const char* kForeign = "slot {} card's last saved para is not qam para,to load default!";
  struct Row {
    const char* name;
    u8 slot;
    std::optional<Bytes> file;
    const char* message = nullptr;  // none: the file is taken
  };
  const Row rows[] = {{"missing", 5, {}, "slot {} 's para file is not exist"},
                      {"seven bytes", 3, saved(7), kShort},
                      {"eight bytes", 0, saved(8)},
                      {"wrong type", 1, saved(kRecordSize, 26), kForeign},
                      {"wrong version", 0, saved(kRecordSize, 27, 'e'), kForeign},
                      {"cut", 4, saved(100001)},
                      {"whole", 2, saved(kRecordSize)}};
  const std::size_t open = filesIn("/proc/self/fd");
  for (const auto& [name, slot, file, message] : rows) {
    SCOPED_TRACE(name);
    const std::string path = fmt::format("/tffs0/para/card{}.dat", slot + 1);
    Lines calls = {"open " + path + " rb+"};
    if (message != nullptr)
      calls = calls + Lines{fmt::format(fmt::runtime("debug " + std::string(message) + "\r\n"), slot),
                            fmt::format("save {}", slot)};
    if (file) writeFile(fake.flash.path.string() + path, *file);
    fake.forget();

    const QamCardPara* record = Qam_create_para(slot);
    EXPECT_EQ(fake.log, calls);
    EXPECT_EQ(fake.checks.size(), slot < 2 ? 0U : 1U);
    Bytes expected(kRecordSize, 0xA7);  // what the heap holds
    if (message != nullptr) expected = defaultRecord(slot, *record);
    if (message == nullptr) std::copy(file->begin(), file->end(), expected.begin());
    const auto differs = std::mismatch(expected.begin(), expected.end(), reinterpret_cast<const u8*>(record));
    EXPECT_EQ(differs.first - expected.begin(), kRecordSize) << "the place of the first difference";
    EXPECT_EQ(filesIn("/proc/self/fd"), open);
  }
  fake.forget();
  fake.heapBlocks = 0;
  EXPECT_EQ(Qam_create_para(1), nullptr);
  EXPECT_EQ(fake.log, Lines{"debug qam card 1 malloc memory failed!\r\n"});
}

}  // namespace
}  // namespace test
