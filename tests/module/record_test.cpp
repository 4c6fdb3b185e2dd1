// The parameter record: its defaults, its loading from files good and bad, its lookup.
#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "tests/module/chassis.h"

namespace test {

struct LoadRow {
  const char* name;
  u8 slot;
  std::optional<Bytes> file;
  const char* message;  // null: the file is taken
};

namespace {

constexpr std::size_t kRecordSize = 203132;

// Symbol rate and clock generator registers 20, 22 to 27.
constexpr u16 kClockTable[17][8] = {
    {5000, 0x2D, 0, 5, 0x02, 0x80, 0x0B, 0xAF}, {5125, 0x2D, 0, 5, 0x02, 0x90, 0x4B, 0xAF},
    {5250, 0x2D, 0, 5, 0x02, 0xA0, 0x33, 0xCF}, {5375, 0x2D, 0, 5, 0x02, 0xB0, 0x1B, 0xEF},
    {5500, 0x2D, 4, 5, 0x00, 0x40, 0x02, 0x0B}, {5625, 0x2D, 0, 5, 0x02, 0xD0, 0x22, 0x0B},
    {5750, 0x2D, 0, 5, 0x02, 0xE0, 0x42, 0x0B}, {5875, 0x2D, 0, 4, 0x0B, 0xC0, 0x9B, 0x6F},
    {6000, 0x2D, 0, 4, 0x0C, 0x01, 0x9B, 0x6F}, {6125, 0x2D, 0, 4, 0x0C, 0x40, 0xE3, 0x8F},
    {6250, 0x2D, 0, 4, 0x02, 0x80, 0x0B, 0xAF}, {6375, 0x2D, 0, 4, 0x0C, 0xC1, 0x2B, 0xAF},
    {6500, 0x2D, 0, 4, 0x0D, 0x00, 0x73, 0xCF}, {6625, 0x2D, 0, 4, 0x0D, 0x41, 0x73, 0xCF},
    {6750, 0x2D, 0, 4, 0x0D, 0x80, 0xBB, 0xEF}, {6875, 0x8D, 1, 0, 0x00, 0x40, 0x02, 0x0B},
    {7000, 0x2D, 0, 4, 0x0E, 0x00, 0x82, 0x0B}};

// The default record as the file has it, laid out by byte offsets.
Bytes defaultRecord(u8 slot) {
  Bytes record(kRecordSize, 0);
  const auto put = [&record](std::size_t at, u32 value, int width) {
    for (; width-- > 0; value >>= 8) record[at++] = static_cast<u8>(value);
  };
  put(0, 27U | u32{slot} << 8 | 100U << 16, 4);
  put(7, '0', 1);
  put(8, 1090000000, 4);
  put(12, 1000, 4);
  put(16, 554000, 4);
  put(20, 6875, 4);
  put(24, 5, 1);
  put(32, 15, 1);
  for (std::size_t row = 0; row < 17; ++row) {
    for (std::size_t column = 0; column < 8; ++column)
      put(36 + 16 * row + 2 * column, kClockTable[row][column], 2);
  }
  for (std::size_t i = 0; i < 16; ++i) put(308 + 2 * i, 300, 2);
  std::fill(record.begin() + 380, record.end(), u8{0xFF});
  return record;
}

// The first bytes of a saved record with no two like parts.
Bytes savedRecord(std::size_t size, u8 type = 27, u8 slot = 0, u8 version = 100) {
  Bytes file(kRecordSize);
  u32 state = 1;
  for (u8& byte : file) byte = static_cast<u8>((state = state * 1664525 + 1013904223) >> 24);
  file[0] = type;
  file[1] = slot;
  file[2] = version;
  file.resize(size);
  return file;
}

Bytes bytesOf(const QamCardPara* record) {
  const u8* bytes = reinterpret_cast<const u8*>(record);
  return {bytes, bytes + kRecordSize};
}

// Gives the place of the first difference instead of two hundred thousand bytes.
void expectSame(const Bytes& actual, const Bytes& expected) {
  ASSERT_EQ(actual.size(), expected.size());
  const auto [a, e] = std::mismatch(actual.begin(), actual.end(), expected.begin());
  EXPECT_TRUE(a == actual.end()) << "at byte " << a - actual.begin() << ": " << int{*a} << ", not "
                                 << int{*e};
}

class Load : public ModuleTest, public ::testing::WithParamInterface<LoadRow> {};

constexpr const char* kMissing = "debug slot {} 's para file is not exist\r\n";
constexpr const char* kShort = "debug read ds3 card {}'s para error, to load default\r\n";
constexpr const char* kForeign = "debug slot {} card's last saved para is not qam para,to load default!\r\n";

INSTANTIATE_TEST_SUITE_P(
    Record, Load,
    ::testing::Values(LoadRow{"Missing", 0, {}, kMissing}, LoadRow{"MissingInSlot5", 5, {}, kMissing},
                      LoadRow{"Empty", 0, Bytes{}, kShort}, LoadRow{"SevenBytes", 3, savedRecord(7), kShort},
                      LoadRow{"EightBytes", 0, savedRecord(8), nullptr},
                      LoadRow{"WrongType", 1, savedRecord(kRecordSize, 26), kForeign},
                      LoadRow{"WrongVersion", 0, savedRecord(kRecordSize, 27, 0, 'e'), kForeign},
                      LoadRow{"OtherSlot", 1, savedRecord(kRecordSize, 27, 3), nullptr},
                      LoadRow{"Cut", 4, savedRecord(100001, 27, 4), nullptr},
                      LoadRow{"LastByteGone", 0, savedRecord(kRecordSize - 1), nullptr},
                      LoadRow{"Whole", 5, savedRecord(kRecordSize, 27, 5), nullptr}),
    kRowName);

TEST_P(Load, TakesTheFileOrDefaults) {
  const auto& [name, slot, file, message] = GetParam();
  const std::string path = fmt::format("/tffs0/para/card{}.dat", slot + 1);
  Lines calls = {"open " + path + " rb+"};
  if (message != nullptr) calls.push_back(fmt::format(fmt::runtime(message), slot));
  if (file) calls.push_back("close " + path);
  if (message != nullptr) calls.push_back(fmt::format("save {}", slot));

  Bytes expected(kRecordSize, fake.heapFill);
  if (message != nullptr) expected = defaultRecord(slot);
  if (message == nullptr) std::copy(file->begin(), file->end(), expected.begin());

  if (file) fake.files[path] = *file;
  expectSame(bytesOf(Qam_create_para(slot)), expected);
  EXPECT_EQ(fake.log, calls);
  EXPECT_EQ(fake.checks.size(), slot < 2 ? 0U : 1U);
}

}  // namespace
}  // namespace test
