// The card's rows of the SNMP agent, asked and written as the agent does. Their values: e2e/snmp.py.
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
namespace {

using Name = std::vector<u32>;

const Name kBase{1, 3, 6, 1, 4, 1, 32473, 4, 2, 9};  // the slot's component follows

u32 idOf(const Name& name) {
  return qam_remap(name.data(), static_cast<int>(name.size()));
}

class Snmp : public ModuleTest {
 protected:
  // The rows below a slot's base, as the agent stores them.
  std::vector<chassis::variable> rows(u32 slot) {
    const Name base = kBase + Name{slot};
    fake.forget();
    qamMibRegister(base.data(), static_cast<int>(base.size()));
    EXPECT_EQ(fake.log, Lines{fmt::format("mib {}", fmt::join(base, "."))});
    fake.forget();
    std::vector<chassis::variable> all;
    for (const chassis::variable4& row : fake.mibRows) {
      const auto length = static_cast<u8>(base.size() + row.namelen);
      all.push_back({row.magic, row.type, row.acl, row.findVar, length, {}});
      std::copy_n(row.name, row.namelen, std::copy(base.begin(), base.end(), all.back().name));
    }
    return all;
  }

  // The value and its size; the instance is then in `name`.
  static std::pair<const u8*, int> ask(chassis::variable row, Name& name, bool exact) {
    int length = static_cast<int>(name.size()), size = 99;
    chassis::WriteMethod writer = nullptr;
    name.resize(chassis::MAX_OID_LEN);
    const u8* value = row.findVar(&row, name.data(), &length, exact, &size, &writer);
    name.resize(static_cast<std::size_t>(length));
    return {value, size};
  }
  static std::pair<const u8*, int> askFirst(const chassis::variable& row) {
    Name name;
    return ask(row, name, false);
  }

  static int write(int phase, const Name& instance, int size, Bytes encoding) {
    Name name = kBase + instance;
    encoding.resize(1000);
    return qam_write_custom(phase, encoding.data(), encoding[0], size, nullptr, name.data(),
                            static_cast<int>(name.size()));
  }
};

// What is next after a name: e2e/snmp.py.
TEST_F(Snmp, ARowHasOneInstance) {
  fake.start(3);
  const chassis::variable row = rows(5)[4];
  for (const Name& end : {Name{}, {4}, {4, 0}, {4, 0, 0}, {4, 1}, {5, 0}}) {
    const Name asked = kBase + Name{5, 2, 51, 1} + end;
    Name name = asked;
    const auto [value, size] = ask(row, name, true);
    EXPECT_EQ(value != nullptr, end == Name({4, 0})) << fmt::format("{}", end);
    EXPECT_TRUE(value == nullptr || size == 4);
    EXPECT_EQ(name, asked);
  }
  Name next = kBase;
  ask(row, next, false);
  EXPECT_EQ(next, kBase + Name({5, 2, 51, 1, 4, 0}));
}

TEST_F(Snmp, NothingIsReadOfOtherSlotsAndOfValuesThatAreNone) {
  for (const auto& [slot, shownAs] : {std::pair{1U, 1}, {8U, 8}, {0xFFFFFFFFU, -1}}) {
    EXPECT_EQ(askFirst(rows(slot)[4]).first, nullptr);
    EXPECT_EQ(fake.log, Lines{fmt::format("debug slotNo is {}, snmp error!\n", shownAs)});
  }
  fake.start(3)->qam_para.rfreq = 0xFFFFFFFF;
  EXPECT_EQ(askFirst(rows(5)[4]).first, nullptr);
  EXPECT_EQ(fake.log.back(), "debug get in4 vid 30 of slot3 port0 error!\r\n");
  const auto [text, size] = askFirst(rows(5)[0]);
  EXPECT_EQ(std::string(text, text + size), "V1.0");
  EXPECT_EQ(askFirst(rows(6)[0]), (std::pair<const u8*, int>(nullptr, 0))) << "a slot without a card";
}

TEST_F(Snmp, AWriteIsCheckedInEveryPhaseAndAppliedInAction) {
  // The answers in ACTION and in each other phase, and the message in ACTION; type and length are those of
  // the encoding.
  using Outcome = std::tuple<int, int, std::string>;
  for (const u8 slot : {u8{0}, u8{3}, u8{5}}) fake.start(slot);
  const auto outcome = [&](const Name& instance, const Bytes& encoding) {
    const auto answered = [&](int phase) {
      fake.forget();
      return write(phase, instance, encoding[1], encoding);
    };
    const int otherwise = answered(chassis::RESERVE1);
    for (const int phase : {1, 3, 4, 5}) EXPECT_EQ(answered(phase), otherwise) << phase;
    EXPECT_EQ(fake.steps, Lines{});
    const int inAction = answered(chassis::ACTION);
    std::string said;
    for (const std::string& call : fake.log) said += call.starts_with("debug ") ? call.substr(6) : "";
    return Outcome{inAction, otherwise, said};
  };
  const std::string unknown = fmt::format(
      "in4_reMap Error .{}.5.2.51.1.9.4294967295.is not exist in the mib\r\n", fmt::join(kBase, "."));
  // Of several faults the first is reported.
  EXPECT_EQ(outcome({8, 2, 51, 1, 9}, {5, 9}), (Outcome{7, 7, "type disagreement!\r\n"}));
  EXPECT_EQ(outcome({5, 2, 51, 1, 4, 0}, {3, 1, 1}), (Outcome{7, 7, "type disagreement!\r\n"}));
  EXPECT_EQ(outcome({8, 2, 51, 1, 9}, {2, 5, 0, 0, 0, 0, 1}), (Outcome{8, 8, ""}));
  EXPECT_EQ(outcome({5, 2, 51, 1, 9, 4294967295}, {2, 0}), (Outcome{2, 2, unknown}));
  EXPECT_EQ(outcome({5, 2, 51, 1}, {2, 0}), (Outcome{2, 2, ""})) << "half a name";
  EXPECT_EQ(outcome({8, 2, 51, 1, 4, 0}, {2, 0}), (Outcome{10, 10, ""}));
  EXPECT_EQ(outcome({1, 2, 51, 1, 3, 0}, {2, 1, 7}), (Outcome{-2, 0, "slotNo is 1, snmp error!\n"}));
  EXPECT_EQ(outcome({6, 1, 19, 1, 2, 0}, {2, 1, 7}), (Outcome{10, 0, ""})) << "an empty slot";
  EXPECT_EQ(outcome({5, 3, 51, 1, 12, 0}, {2, 3, 7, 0x3B, 0x90}), (Outcome{2, 0, ""})) << "a reading";
  EXPECT_EQ(outcome({5, 3, 51, 1, 15, 0}, {2, 1, 0}), (Outcome{0, 0, ""})) << "the other switch";
  EXPECT_EQ(fake.steps, Lines{});

  const auto sets = [&](const Name& instance, const Bytes& encoding, const std::string& reg, u32 value) {
    EXPECT_EQ(outcome(instance, encoding), (Outcome{0, 0, ""}));
    const Name name = kBase + instance;
    const auto slotNo = static_cast<u8>(name[10] - 2);
    EXPECT_EQ(std::count(fake.log.begin(), fake.log.end(), fmt::format("save {}", slotNo)), 1);
    EXPECT_EQ(QamGetVar(slotNo, 0, idOf(name), nullptr), value);
    return std::count(fake.steps.begin(), fake.steps.end(), reg) > 0;
  };
  EXPECT_TRUE(sets({5, 2, 51, 1, 3, 0}, {2, 1, 7}, "qam_mode=7", 7));
  EXPECT_TRUE(sets({5, 2, 51, 1, 4, 0}, {2, 3, 7, 0x3B, 0x90}, "lo2_q1_le=1", 474000));
  EXPECT_TRUE(sets({5, 2, 51, 1, 7, 0}, {2, 4, 0, 0, 0, 0}, "power=0", 0));
  EXPECT_TRUE(sets({5, 2, 51, 1, 7}, {2, 1, 0xFE}, "power=65534", 254));
  EXPECT_TRUE(sets({2, 2, 51, 1, 3, 0}, {2, 1, 7}, "qam_mode=7", 7)) << "the first slot";
  EXPECT_TRUE(sets({7, 2, 51, 1, 3, 0}, {2, 1, 7}, "qam_mode=7", 7)) << "the last slot";
}

TEST_F(Snmp, ATextIsKeptWholeAndARowOfNumbersTakesItsAddress) {
  const QamParaS& settings = fake.start(3)->qam_para;
  const auto writeText = [](int phase, const std::string& text) {
    const auto size = static_cast<u16>(text.size());
    Bytes encoding{4, 0x82, static_cast<u8>(size >> 8), static_cast<u8>(size)};
    encoding.insert(encoding.end(), text.begin(), text.end());
    return write(phase, {5, 2, 51, 1, 4, 0}, size, encoding);
  };
  const auto kept = [] { return std::string(std::begin(qam_strtmp), std::end(qam_strtmp)); };
  std::fill(std::begin(qam_strtmp), std::end(qam_strtmp), 'y');
  const std::string longest(446, 'x');
  EXPECT_EQ(writeText(chassis::ACTION, longest), 0);
  EXPECT_EQ(kept(), longest + std::string(3, '\0') + 'y');
  EXPECT_EQ(settings.rfreq, os::addressWord(qam_strtmp));
  EXPECT_EQ(writeText(chassis::COMMIT, "ab"), 0);
  EXPECT_EQ(kept(), "ab" + std::string(447, '\0') + 'y');
  EXPECT_EQ(writeText(chassis::RESERVE1, longest + 'x'), 10);
  EXPECT_EQ(write(chassis::RESERVE1, {5, 2, 51, 1, 4, 0}, -1, {2, 1, 1}), 8);
}

}  // namespace
}  // namespace test
