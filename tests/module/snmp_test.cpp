// The card's rows of the SNMP agent, asked and written as the agent does.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <sstream>

#include "card/QamFpga.h"
#include "card/qamVar.h"
#include "platform/address_word.h"
#include "tests/module/chassis.h"
#include "ui/qamSnmp.h"

namespace test {

struct Write {
  const char* name;
  std::string instance;  // from the component of the slot on
  Bytes encoding;        // whose first two bytes are type and length as the agent tells them
  int inAction, otherwise;
  std::string said = {};     // in every phase that answers as ACTION does
  const char* touched = "";  // the register that tells of the change; empty: none is touched
  u32 stored = 0;
};

namespace {

using Name = std::vector<u32>;

constexpr const char* kBase = "1.3.6.1.4.1.32473.4.2.9.";  // the slot's component follows

// The name of what stands below the bases.
Name below(const std::string& instance) {
  Name name;
  std::istringstream components(kBase + instance);
  for (std::string each; std::getline(components, each, '.');) {
    name.push_back(static_cast<u32>(std::stoul(each)));
  }
  return name;
}
u32 idOf(const Name& name) {
  return qam_remap(name.data(), static_cast<int>(name.size()));
}

int nobody(int, u8*, u8, int, u8*, u32*, int) {
  return 0;
}

struct Answer {
  const u8* value = nullptr;
  int size = 99;
  chassis::WriteMethod writer = nobody;
};

class Snmp : public ModuleTest {
 protected:
  // The rows below a slot's base, as the agent keeps them.
  std::vector<chassis::variable> rows(u32 slot) {
    const Name base = below(std::to_string(slot));
    fake.log.clear();
    qamMibRegister(base.data(), static_cast<int>(base.size()));
    EXPECT_EQ(fake.log,
              Lines{fmt::format("mib {}{} 15 rows of {}", kBase, slot, sizeof(chassis::variable4))});
    std::vector<chassis::variable> all;
    for (const chassis::variable4& row : fake.mibRows) {
      const auto length = static_cast<u8>(fake.mibBase.size() + row.namelen);
      all.push_back({row.magic, row.type, row.acl, row.findVar, length, {}});
      std::copy_n(row.name, row.namelen,
                  std::copy(fake.mibBase.begin(), fake.mibBase.end(), all.back().name));
    }
    fake.log.clear();
    return all;
  }

  // The answer's instance is in `name` then.
  static Answer ask(chassis::variable& row, Name& name, bool exact) {
    Answer answer;
    int length = static_cast<int>(name.size());
    name.resize(chassis::MAX_OID_LEN);
    answer.value = row.findVar(&row, name.data(), &length, exact, &answer.size, &answer.writer);
    name.resize(static_cast<std::size_t>(length));
    return answer;
  }
  static Answer askFirst(chassis::variable& row) {
    Name name;
    return ask(row, name, false);
  }

  static std::string shown(const chassis::variable& row, const Answer& answer) {
    const auto size = static_cast<std::size_t>(answer.size);
    const std::string bytes(reinterpret_cast<const char*>(answer.value), size);
    if (row.type == chassis::ASN_OCTET_STR) return "text " + bytes;
    u32 number = 0;
    EXPECT_EQ(row.type, chassis::ASN_INTEGER);
    EXPECT_EQ(bytes.copy(reinterpret_cast<char*>(&number), sizeof number), size);
    return fmt::format("number {}", number);
  }

  static int write(int phase, const std::string& instance, int size, Bytes encoding) {
    Name name = below(instance);
    encoding.resize(1000);
    return qam_write_custom(phase, encoding.data(), encoding[0], size, nullptr, name.data(),
                            static_cast<int>(name.size()));
  }
  static int writeText(int phase, const std::string& text) {
    Bytes encoding{4, 0x82};
    put(encoding, static_cast<u32>(text.size()), 2);
    encoding.insert(encoding.end(), text.begin(), text.end());
    return write(phase, "5.2.51.1.4.0", static_cast<int>(text.size()), encoding);
  }
};

TEST_F(Snmp, AWalkOfEachSlotGivesItsCard) {
  for (u8 slotNo = 0; slotNo < MAX_BOARD_NUM; ++slotNo) {
    QamParaS& settings = fake.start(slotNo)->qam_para;
    settings.rfreq = 554000U + slotNo;
    settings.rflevel = 1012;
    settings.symbolrate = 6875;
    settings.qammode = 6;
    settings.rfswitch = 1;
    settings.power = 15;
    QamFpgaIf[slotNo]->version = slotNo;
  }
  for (u8 slotNo = 0; slotNo < MAX_BOARD_NUM; ++slotNo) {
    Lines walk;
    Name name = below(std::to_string(slotNo + 2));
    for (chassis::variable& row : rows(slotNo + 2)) {  // in the order of the names
      const Answer next = ask(row, name, false);
      ASSERT_NE(next.value, nullptr) << fmt::format("{}", name);
      const std::string value = shown(row, next);
      walk.push_back(fmt::format("{} {} {}{}", fmt::join(name, "."), idOf(name),
                                 next.writer == &qam_write_custom ? "rw " : "", value));
      EXPECT_EQ(next.writer == nullptr, next.writer != &qam_write_custom);
      EXPECT_EQ(idOf({name.begin(), name.end() - 1}), idOf(name)) << "the row's own name will do";
    }
    const u32 rf = 554000U + slotNo;
    Lines expected{"1.19.1.1.0 52 text V1.0",
                   "1.19.1.2.0 49 text V2.1.05A",
                   fmt::format("1.19.1.3.0 50 text V2.1.0{}", slotNo),
                   "2.51.1.3.0 33 rw number 6",
                   fmt::format("2.51.1.4.0 30 rw number {}", rf),
                   "2.51.1.5.0 31 rw number 1012",
                   "2.51.1.6.0 34 rw number 1",
                   "2.51.1.7.0 35 rw number 15",
                   "2.51.1.8.0 32 rw number 6875",
                   "3.51.1.11.0 41 number 6",
                   fmt::format("3.51.1.12.0 38 number {}", rf + 8000),
                   "3.51.1.13.0 39 number 1012",
                   "3.51.1.14.0 42 number 1",
                   "3.51.1.15.0 43 rw number 15",
                   "3.51.1.16.0 40 number 6875"};
    for (std::string& line : expected) line = fmt::format("{}{}.{}", kBase, slotNo + 2, line);
    EXPECT_EQ(walk, expected);
  }
}

TEST_F(Snmp, ARowHasOneInstanceAndIsNextForAllNamesBeforeIt) {
  fake.start(3)->qam_para.rfreq = 482000;
  chassis::variable row = rows(5)[4];
  const Name instance = below("5.2.51.1.4.0");
  const auto found = [&](Name name, bool exact) {
    const Name request = name;
    const Answer answer = ask(row, name, exact);
    const bool any = answer.value != nullptr;
    EXPECT_EQ(name, any ? instance : request);
    EXPECT_TRUE(!any || (shown(row, answer) == "number 482000" && answer.writer == &qam_write_custom));
    return any;
  };
  EXPECT_TRUE(found(instance, true));
  EXPECT_FALSE(found(instance, false));
  for (const char* before : {"4.9", "4.2.51.1.4.0", "5", "5.2.51.1.4", "5.2.51.1.3.0", "5.2.51.1.3.9.9"}) {
    EXPECT_FALSE(found(below(before), true)) << before;
    EXPECT_TRUE(found(below(before), false)) << before;
  }
  for (const char* behind : {"5.2.51.1.4.0.0", "5.2.51.1.4.1", "5.2.51.2", "5.3", "6", "6.2.51.1.4.0"}) {
    EXPECT_FALSE(found(below(behind), true)) << behind;
    EXPECT_FALSE(found(below(behind), false)) << behind;
  }
}

TEST_F(Snmp, NothingIsReadOfOtherSlotsAndOfValuesThatAreNone) {
  for (const auto& [slot, shownAs] : {std::pair{1U, 1}, {8U, 8}, {0xFFFFFFFFU, -1}}) {
    EXPECT_EQ(askFirst(rows(slot)[4]).value, nullptr);
    EXPECT_EQ(fake.log, Lines{fmt::format("debug slotNo is {}, snmp error!\n", shownAs)});
  }
  fake.start(3)->qam_para.rfreq = 0xFFFFFFFF;
  EXPECT_EQ(askFirst(rows(5)[4]).value, nullptr);
  EXPECT_EQ(fake.log, (Lines{"take null", "give null", "debug get in4 vid 30 of slot3 port0 error!\r\n"}));

  std::vector<chassis::variable> ofNoCard = rows(6);
  for (std::size_t i = 0; i < 3; ++i) {
    const Answer text = askFirst(ofNoCard[i]);
    EXPECT_EQ(text.value, nullptr);
    EXPECT_EQ(text.size, 0);
  }
  EXPECT_EQ(shown(ofNoCard[4], askFirst(ofNoCard[4])), "number 0");
}

class SnmpWrite : public Snmp, public ::testing::WithParamInterface<Write> {};

const std::string kUnknown =
    fmt::format("in4_reMap Error .{}5.2.51.1.9.4294967295.is not exist in the mib\r\n", kBase);

// Of several faults the first is told.
INSTANTIATE_TEST_SUITE_P(
    Each, SnmpWrite,
    ::testing::Values(Write{"OfAnotherType", "8.2.51.1.9", {5, 9}, 7, 7, "type disagreement!\r\n"},
                      Write{"OfTypeThree", "5.2.51.1.4.0", {3, 1, 1}, 7, 7, "type disagreement!\r\n"},
                      Write{"OfFiveBytes", "8.2.51.1.9", {2, 5, 0, 0, 0, 0, 1}, 8, 8},
                      Write{"ToAnUnknownRow", "5.2.51.1.9.4294967295", {2, 0}, 2, 2, kUnknown},
                      Write{"ToHalfAName", "5.2.51.1", {2, 0}, 2, 2},
                      Write{"OfNothing", "8.2.51.1.4.0", {2, 0}, 10, 10},
                      Write{"BelowTheSlots", "1.2.51.1.3.0", {2, 1, 7}, -2, 0, "slotNo is 1, snmp error!\n"},
                      Write{"AboveTheSlots", "8.1.19.1.2.0", {2, 1, 7}, -2, 0, "slotNo is 8, snmp error!\n"},
                      Write{"ToAnEmptySlot", "6.1.19.1.2.0", {2, 1, 7}, 10, 0},
                      Write{"ToAReading", "5.3.51.1.12.0", {2, 3, 7, 0x3B, 0x90}, 2, 0},
                      Write{"ToAText", "5.1.19.1.2.0", {4, 1, 'A'}, 2, 0},
                      Write{"ToTheOtherSwitch", "5.3.51.1.15.0", {2, 1, 0}, 0, 0},
                      Write{"Constellation", "5.2.51.1.3.0", {2, 1, 7}, 0, 0, "", "qam_mode=7", 7},
                      Write{"Frequency", "5.2.51.1.4.0", {2, 3, 7, 0x3B, 0x90}, 0, 0, "", "lo2_", 474000},
                      Write{"Level", "5.2.51.1.5.0", {2, 2, 4, 0x4C}, 0, 0, "", "att_", 1100},
                      Write{"QamSwitch", "5.2.51.1.6.0", {2, 1, 1}, 0, 0, "", "rf0_en=1", 1},
                      Write{"Power", "5.2.51.1.7.0", {2, 4, 0, 0, 0, 0}, 0, 0, "", "power=0", 0},
                      Write{"NegativePower", "5.2.51.1.7", {2, 1, 0xFE}, 0, 0, "", "power=65534", 254},
                      Write{"SymbolRate", "5.2.51.1.8.0", {2, 2, 0x18, 0x6A}, 0, 0, "", "cdce925_", 6250},
                      Write{"InTheFirstSlot", "2.2.51.1.3.0", {2, 1, 7}, 0, 0, "", "qam_mode=7", 7},
                      Write{"InTheLastSlot", "7.2.51.1.3.0", {2, 1, 7}, 0, 0, "", "qam_mode=7", 7}),
    kRowName);

TEST_P(SnmpWrite, IsCheckedInEveryPhaseAndAppliedInAction) {
  const Write& row = GetParam();
  const Name name = below(row.instance);
  const auto slotNo = static_cast<u8>(name[10] - 2);
  for (const u8 slot : {u8{0}, u8{3}, u8{5}}) fake.start(slot);
  const auto settings = [] {
    std::string all;
    for (const u8 slot : {u8{0}, u8{3}, u8{5}}) {
      all.append(reinterpret_cast<const char*>(&GetQamCardParaFromList(slot)->qam_para), sizeof(QamParaS));
    }
    return all;
  };
  const std::string before = settings();
  for (const int phase : {0, 1, 3, 4, 5, 2}) {
    SCOPED_TRACE(phase);
    fake.log.clear();
    fake.steps.clear();
    const int expected = phase == chassis::ACTION ? row.inAction : row.otherwise;
    const bool changes = phase == chassis::ACTION && *row.touched != 0;
    EXPECT_EQ(write(phase, row.instance, row.encoding[1], row.encoding), expected);
    std::string said;
    Lines saved;
    for (const std::string& line : fake.log) {
      if (line.starts_with("debug ")) said += line.substr(6);
      if (line.starts_with("save ")) saved.push_back(line);
    }
    EXPECT_EQ(said, expected == row.inAction ? row.said : "");
    EXPECT_EQ(saved, changes ? Lines{fmt::format("save {}", slotNo)} : Lines{});
    EXPECT_EQ(settings() != before, changes);
    EXPECT_EQ(std::any_of(fake.steps.begin(), fake.steps.end(),
                          [&](const std::string& step) { return step.starts_with(row.touched); }),
              changes);
  }
  const bool isSet = *row.touched != 0;
  EXPECT_TRUE(!isSet || QamGetVar(slotNo, 0, idOf(name), nullptr) == row.stored);
}

TEST_F(Snmp, ATextIsKeptWholeAndARowOfNumbersTakesItsAddress) {
  const QamParaS& settings = fake.start(3)->qam_para;
  const std::string longest(449, 'x');
  EXPECT_EQ(writeText(chassis::ACTION, longest), 0);
  EXPECT_EQ(std::string(std::begin(qam_strtmp), std::end(qam_strtmp)), longest + '\0');
  EXPECT_EQ(settings.rfreq, os::addressWord(qam_strtmp));
  EXPECT_EQ(writeText(chassis::COMMIT, "ab"), 0);
  EXPECT_EQ(std::string(std::begin(qam_strtmp), std::end(qam_strtmp)), "ab" + std::string(448, '\0'));
  for (int phase = chassis::RESERVE1; phase <= chassis::UNDO; ++phase) {
    EXPECT_EQ(writeText(phase, longest + 'x'), 10) << phase;
    EXPECT_EQ(write(phase, "5.2.51.1.4.0", -1, {2, 1, 1}), 8) << phase;
  }
}

}  // namespace
}  // namespace test
