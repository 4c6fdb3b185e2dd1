// The parameter record: its defaults, and its loading from files good and bad.
#include <fmt/format.h>

#include <cstring>

#include "card/qamVar.h"
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
  for (int port = 0; port < 2; ++port) {
    std::fill_n(record->Interval[port], 8, u16{300});
    std::memset(record->pidMap[port], 0xFF, sizeof record->pidMap[port]);
    std::memset(record->psiPkt[port], 0xFF, sizeof record->psiPkt[port]);
  }
  const u8* bytes = reinterpret_cast<const u8*>(record.get());
  return {bytes, bytes + kRecordSize};
}

// The first bytes of a saved record with no two like parts.
Bytes saved(std::size_t size, u8 type = 27, u8 slot = 0, u8 version = 'd') {
  Bytes file(kRecordSize);
  u32 state = 1;
  for (u8& byte : file) byte = static_cast<u8>((state = state * 1664525 + 1013904223) >> 24);
  std::copy_n(Bytes{type, slot, version}.begin(), 3, file.begin());
  file.resize(size);
  return file;
}

TEST_F(Record, IsTheFileOrTheDefaults) {
  constexpr const char* kMissing = "debug slot {} 's para file is not exist\r\n";
  constexpr const char* kShort = "debug read ds3 card {}'s para error, to load default\r\n";
  constexpr const char* kForeign =
      "debug slot {} card's last saved para is not qam para,to load default!\r\n";
  struct Row {
    const char* name;
    u8 slot;
    std::optional<Bytes> file;
    const char* message = nullptr;  // none: the file is taken
  };
  const Row rows[] = {{"missing", 0, {}, kMissing},
                      {"missing in slot 5", 5, {}, kMissing},
                      {"empty", 0, Bytes{}, kShort},
                      {"seven bytes", 3, saved(7), kShort},
                      {"eight bytes", 0, saved(8)},
                      {"wrong type", 1, saved(kRecordSize, 26), kForeign},
                      {"wrong version", 0, saved(kRecordSize, 27, 0, 'e'), kForeign},
                      {"another slot's", 1, saved(kRecordSize, 27, 3)},
                      {"cut", 4, saved(100001, 27, 4)},
                      {"last byte gone", 0, saved(kRecordSize - 1)},
                      {"whole", 5, saved(kRecordSize, 27, 5)}};
  for (const auto& [name, slot, file, message] : rows) {
    SCOPED_TRACE(name);
    const std::string path = fmt::format("/tffs0/para/card{}.dat", slot + 1);
    Lines calls = {"open " + path + " rb+"};
    if (message != nullptr) calls.push_back(fmt::format(fmt::runtime(message), slot));
    if (file) calls.push_back("close " + path);
    if (message != nullptr) calls.push_back(fmt::format("save {}", slot));
    fake.files.clear();
    if (file) fake.files[path] = *file;
    fake.log.clear();
    fake.checks.clear();

    const QamCardPara* record = Qam_create_para(slot);
    EXPECT_EQ(fake.log, calls);
    EXPECT_EQ(fake.checks.size(), slot < 2 ? 0U : 1U);
    Bytes expected(kRecordSize, fake.heapFill);
    if (message != nullptr) expected = defaultRecord(slot, *record);
    if (message == nullptr) std::copy(file->begin(), file->end(), expected.begin());
    const u8* bytes = reinterpret_cast<const u8*>(record);
    const auto differs = std::mismatch(expected.begin(), expected.end(), bytes).first;
    EXPECT_EQ(static_cast<std::size_t>(differs - expected.begin()), kRecordSize)
        << "the place of the first difference";
  }
}

TEST_F(Record, WithoutMemoryThereIsNone) {
  fake.heapBlocks = 0;
  EXPECT_EQ(Qam_create_para(1), nullptr);
  EXPECT_EQ(fake.log, Lines{"debug qam card 1 malloc memory failed!\r\n"});
}

}  // namespace
}  // namespace test
