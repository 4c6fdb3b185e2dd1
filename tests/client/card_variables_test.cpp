// A card's variables: what may be written, how values read, and the way to them over a link.
#include "client/card_variables.h"

#include <gtest/gtest.h>

#include <set>

#include "client/card_settings.h"
#include "tests/client/card_link.h"
#include "tests/client/messages.h"

namespace client {
namespace {

using test::expectSays;
using test::messageOf;

TEST(CardVariables, AreFoundByIdAndName) {
  for (const CardVariable& variable : cardVariables()) {
    EXPECT_EQ(findCardVariable(variable.name), &variable);
    EXPECT_EQ(findCardVariable(std::to_string(variable.id)), &variable);
  }
  for (const char* none : {"", "46", "51", "29", "53", "-30", "0x1e", "30 ", "rfre", "4294967326"}) {
    EXPECT_EQ(findCardVariable(std::string_view(none)), nullptr) << none;
  }
}

TEST(CardVariables, KnowWhatIsPossibleAndWhoWritesIt) {
  struct Row {
    const char* name;
    std::set<std::int64_t> possible;
    std::set<std::int64_t> impossible;
    const char* advice;  // that a refusal gives
  };
  const char* const notHere = "rfreq, rflevel, symbolrate, qammode, rfswitch and power can";
  const Row rows[] = {
      {"rfreq", {52000, 1000000}, {51999, 1000001, 52000 + (1LL << 32)}, "52000 to 1000000 (kHz)"},
      {"rflevel", {950, 955, 1150}, {945, 951, 1155}, "950 to 1150 in steps of 5 (0.1 dBuV)"},
      {"symbolrate", {5000, 5001, 7000}, {4999, 7001}, "5000 to 7000 (kBd)"},
      {"qammode", {5, 7}, {4, 8}, "5 (64-QAM), 6 (128-QAM) or 7 (256-QAM)"},
      {"rfswitch", {0, 1}, {-1, 2}, "0 (on) or 1 (off)"},
      {"power", {0, 15}, {-15, 1, 14, 30}, "0 (off) or 15 (on)"},
      {"power2", {0, 15}, {-15, 1, 14, 30}, notHere},
      {"rfreq2", {60000, 1008000}, {59999, 1008001, 60000 - (1LL << 32)}, notHere},
      {"rflevel2", {950, 955, 1150}, {945, 951, 1155}, notHere},
      {"symbolrate2", {5000, 7000}, {4999, 7001}, notHere},
      {"qammode2", {5, 6, 7}, {4, 8}, notHere},
      {"rfswitch2", {0, 1}, {-1, 2}, notHere},
      {"temperature1", {}, {0, 25}, notHere},
      {"fpga_version", {}, {0, 1}, notHere},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const CardVariable& variable = *findCardVariable(row.name);
    const auto refusal = [&](const std::string& text) {
      return messageOf([&] { EXPECT_EQ(std::to_string(parseValue(variable, text)), text); });
    };
    for (const std::int64_t value : row.possible) {
      EXPECT_TRUE(isPossible(variable, value)) << value;
      expectSays(refusal(std::to_string(value)), row.advice == notHere ? notHere : "");
    }
    for (const std::int64_t value : row.impossible) {
      EXPECT_FALSE(isPossible(variable, value)) << value;
      expectSays(refusal(std::to_string(value)), row.advice);
    }
  }
  expectSays(messageOf([] { parseValue(*findCardVariable("qammode"), "64-QAM"); }), "'64-QAM'");
  EXPECT_THROW(parseValue(*findCardVariable("power"), "+15"), std::invalid_argument);
}

TEST(CardVariables, WarnOfARateWithoutAClockRow) {
  int withRow = 0;
  for (u32 kBd = 5000; kBd <= 7000; ++kBd)
    withRow += valueWarning(*findCardVariable("symbolrate"), kBd).empty() ? 1 : 0;
  EXPECT_EQ(withRow, 17);
  EXPECT_EQ(valueWarning(*findCardVariable("rfreq"), 52001), "");
}

TEST(CardVariables, ReadAsPeopleSayThem) {
  struct Row {
    const char* name;
    VariableValue value;
    const char* text;
  };
  const Row rows[] = {
      {"rfreq", 554000U, "554000 kHz"},     {"rflevel", 1005U, "1005 (100.5 dBuV)"},
      {"qammode2", 7U, "7 (256-QAM)"},      {"rfswitch", 0U, "0 (on)"},
      {"temperature1", 25U, "25 deg C"},    {"temperature2", 251U, "-5 deg C"},
      {"temperature2", 128U, "-128 deg C"}, {"total_rate1", std::string("38014Kb/s"), "38014Kb/s"},
  };
  for (const Row& row : rows) EXPECT_EQ(valueText(*findCardVariable(row.name), row.value), row.text);
}

TEST(CardVariables, SayWhatWasRefusedAndDoubtOddReplies) {
  test::Driven chassis;
  chassis.drive([&] {
    test::FakeLink link(chassis.headend());
    EXPECT_EQ(getVariable(link, 0, 30), VariableValue(554000U));
    EXPECT_EQ(getVariable(link, 0, 49), VariableValue(std::string("V2.1.05A")));
    setVariable(link, 0, 30, 0x90807);
    EXPECT_EQ(getVariable(link, 0, 30), VariableValue(0x90807U));
    expectSays(messageOf([&] { getVariable(link, 1, 30); }),
               "reading rfreq of the card in slot 2 was refused: no card in this slot");
    const std::map<u32, std::string> refusals = {
        {kNotRunning, "does not run"}, {kNotWritable, "only be read"}, {kSettingRefused, "cannot set"}};
    for (const auto& [result, text] : refusals) {
      link.after = [result = result](Reply& reply) { reply.result = result; };
      expectSays(messageOf([&] { setVariable(link, 0, 31, 1000); }), text);
    }
    for (const Bytes& odd : {Bytes{}, Bytes{0}, Bytes{0, 1, 2, 3}, Bytes{0, 1, 2, 3, 4, 5},
                             Bytes{1, '3', '0'}, Bytes{2, 0, 0, 0, 1}}) {
      link.after = [&](Reply& reply) { reply.data = odd; };
      expectSays(messageOf([&] { getVariable(link, 0, 30); }), "not what was asked for");
    }
    link.log.clear();
    expectSays(messageOf([&] { setVariable(link, 0, 51, 1); }), "there is none");
    expectSays(messageOf([&] { getVariable(link, 0, 0x1001E); }), "there is none");
    EXPECT_TRUE(link.log.empty());
  });
}

}  // namespace
}  // namespace client
