// The table of a card's variables: what may be written, how values read; and the way to them over a link.
#include "client/card_variables.h"

#include <gtest/gtest.h>

#include <set>

#include "client/card_settings.h"
#include "tests/client/fake_card.h"

namespace client {
namespace {

TEST(CardVariables, AreFoundByIdAndName) {
  std::set<u32> ids;
  std::set<std::string_view> names;
  for (const CardVariable& variable : cardVariables()) {
    ids.insert(variable.id);
    names.insert(variable.name);
    EXPECT_EQ(findCardVariable(variable.name), &variable);
    EXPECT_EQ(findCardVariable(std::to_string(variable.id)), &variable);
    EXPECT_EQ(variable.writable, variable.id <= 35) << variable.name;
  }
  EXPECT_EQ(ids.size(), 21U);
  EXPECT_EQ(names.size(), 21U);
  for (const char* none : {"", "46", "51", "29", "53", "-30", "0x1e", "30 ", "rfre", "4294967326"}) {
    EXPECT_EQ(findCardVariable(std::string_view(none)), nullptr) << none;
  }
}

TEST(CardVariables, TakeWhatIsPossibleAndSayWhatIs) {
  struct Row {
    const char* name;
    const char* text;
    const char* refusal;  // a part of it; null: taken
  };
  const Row rows[] = {
      {"rfreq", "52000", nullptr},
      {"rfreq", "1000000", nullptr},
      {"rfreq", "51999", "52000 to 1000000 (kHz)"},
      {"rfreq", "4295019296", "52000 to 1000000"},  // 52000 in 32 bits
      {"rflevel", "950", nullptr},
      {"rflevel", "1150", nullptr},
      {"rflevel", "945", "950 to 1150 in steps of 5 (0.1 dBuV)"},
      {"rflevel", "1001", "in steps of 5"},
      {"symbolrate", "7000", nullptr},
      {"symbolrate", "4999", "5000 to 7000 (kBd)"},
      {"qammode", "5", nullptr},
      {"qammode", "7", nullptr},
      {"qammode", "4", "5 (64-QAM), 6 (128-QAM) or 7 (256-QAM)"},
      {"qammode", "64-QAM", "'64-QAM'"},
      {"rfswitch", "2", "0 (on) or 1 (off)"},
      {"power", "0", nullptr},
      {"power", "15", nullptr},
      {"power", "1", "0 (off) or 15 (on)"},
      {"power", "+15", "0 (off) or 15 (on)"},
      {"rfreq2", "562000", "rfreq, rflevel, symbolrate, qammode, rfswitch and power can"},
  };
  for (const Row& row : rows) {
    std::string refusal;
    try {
      EXPECT_EQ(std::to_string(parseValue(*findCardVariable(row.name), row.text)), row.text);
    } catch (const std::invalid_argument& e) {
      refusal = e.what();
    }
    EXPECT_EQ(refusal.empty(), row.refusal == nullptr) << row.name << '=' << row.text << ": " << refusal;
    if (row.refusal == nullptr) continue;
    EXPECT_NE(refusal.find(row.refusal), std::string::npos) << row.name << '=' << row.text << ": " << refusal;
  }
}

TEST(CardVariables, KnowWhatIsPossibleAlsoWhereOthersWrite) {
  struct Row {
    const char* name;
    std::set<std::int64_t> possible;
    std::set<std::int64_t> impossible;
  };
  const Row rows[] = {
      {"rfreq", {52000, 1000000}, {51999, 1000001, 52000 - (1LL << 32), 52000 + (1LL << 32)}},
      {"rflevel", {950, 955, 1150}, {945, 951, 1155}},
      {"symbolrate", {5000, 5001, 7000}, {4999, 7001}},
      {"power", {0, 15}, {-15, 1, 14, 30}},
      {"power2", {0, 15}, {-15, 1, 14, 30}},
      {"rfreq2", {60000, 1008000}, {59999, 1008001}},
      {"rflevel2", {950, 955, 1150}, {945, 951, 1155}},
      {"symbolrate2", {5000, 7000}, {4999, 7001}},
      {"qammode2", {5, 6, 7}, {4, 8}},
      {"rfswitch2", {0, 1}, {-1, 2}},
      {"temperature1", {}, {0, 25}},
      {"fpga_version", {}, {0, 1}},
  };
  for (const auto& [name, possible, impossible] : rows) {
    const CardVariable& variable = *findCardVariable(name);
    for (const std::int64_t value : possible)
      EXPECT_TRUE(isPossible(variable, value)) << name << ' ' << value;
    for (const std::int64_t value : impossible)
      EXPECT_FALSE(isPossible(variable, value)) << name << ' ' << value;
  }
}

TEST(CardVariables, WarnOfARateWithoutAClockRow) {
  const CardVariable& rate = *findCardVariable("symbolrate");
  int withRow = 0;
  for (u32 kBd = 5000; kBd <= 7000; ++kBd) withRow += valueWarning(rate, kBd).empty() ? 1 : 0;
  EXPECT_EQ(withRow, 17);
  for (const u32 kBd : {5000U, 6875U, 7000U}) EXPECT_EQ(valueWarning(rate, kBd), "");
  EXPECT_NE(valueWarning(rate, 6900).find("6900"), std::string::npos);
  EXPECT_EQ(valueWarning(*findCardVariable("rfreq"), 52001), "");
}

TEST(CardVariables, ReadAsPeopleSayThem) {
  struct Row {
    const char* name;
    VariableValue value;
    const char* text;
  };
  const Row rows[] = {
      {"rfreq", 554000U, "554000 kHz"},
      {"rflevel", 1005U, "1005 (100.5 dBuV)"},
      {"qammode2", 7U, "7 (256-QAM)"},
      {"rfswitch", 0U, "0 (on)"},
      {"power", 15U, "15 (on)"},
      {"temperature1", 25U, "25 deg C"},
      {"temperature2", 251U, "-5 deg C"},
      {"temperature2", 128U, "-128 deg C"},
      {"total_rate1", std::string("38014Kb/s"), "38014Kb/s"},
  };
  for (const Row& row : rows) EXPECT_EQ(valueText(*findCardVariable(row.name), row.value), row.text);
}

TEST(CardSettings, SayWhatWasRefusedAndDoubtOddReplies) {
  test::FakeCard card;
  card.variables = {{30, {0, 0, 8, 0x74, 0x10}}, {49, {1, 'V', '2'}}};
  test::FakeLink link(card);
  EXPECT_EQ(getVariable(link, 0, 30), VariableValue(554000U));
  EXPECT_EQ(getVariable(link, 0, 49), VariableValue(std::string("V2")));
  setVariable(link, 0, 30, 0x01020304);
  EXPECT_EQ(card.variables[30], (Bytes{0, 1, 2, 3, 4}));

  const auto failure = [](const auto& call) -> std::string {
    try {
      call();
    } catch (const VariableError& e) {
      return e.what();
    }
    return "no failure";
  };
  EXPECT_EQ(failure([&] { getVariable(link, 1, 30); }),
            "reading rfreq of the card in slot 2 was refused: no card in this slot");
  for (const auto& [result, text] : std::map<u32, std::string>{
           {0x103, "does not run"}, {0x105, "only be read"}, {0xFFFFFFFE, "cannot set"}}) {
    link.after = [result = result](int, Reply& reply) { reply.result = result; };
    EXPECT_NE(failure([&] { setVariable(link, 0, 31, 1000); }).find(text), std::string::npos) << text;
  }
  for (const Bytes& odd : {Bytes{}, Bytes{0}, Bytes{0, 1, 2, 3}, Bytes{0, 1, 2, 3, 4, 5}, Bytes{1, '3', '0'},
                           Bytes{2, 0, 0, 0, 1}}) {
    link.after = [&](int, Reply& reply) { reply.data = odd; };
    EXPECT_NE(failure([&] { getVariable(link, 0, 30); }).find("not what was asked for"), std::string::npos);
  }
  link.after = {};
  const std::size_t calls = card.log.size();
  EXPECT_NE(failure([&] { setVariable(link, 0, 51, 1); }).find("there is none"), std::string::npos);
  EXPECT_NE(failure([&] { getVariable(link, 0, 0x1001E); }).find("there is none"), std::string::npos);
  EXPECT_EQ(card.log.size(), calls);
}

}  // namespace
}  // namespace client
