// A card's variables: what may be written, and how values read.
#include "client/card_variables.h"

#include <gtest/gtest.h>

#include <set>

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
  for (const char* none : {"", "46", "-30", "0x1e", "30 ", "rfre", "4294967326"})
    EXPECT_EQ(findCardVariable(std::string_view(none)), nullptr) << none;
}

TEST(CardVariables, KnowWhatIsPossibleAndWhoWritesIt) {
  struct Row {
    const char* name;
    std::set<std::int64_t> possible, impossible;
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
      {"rfreq2", {60000, 1008000}, {59999, 1008001}, notHere},
      {"temperature1", {}, {0, 25}, notHere},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const CardVariable& variable = *findCardVariable(row.name);
    const auto expectParsed = [&](std::int64_t value, bool possible) {
      EXPECT_EQ(isPossible(variable, value), possible) << value;
      const std::string text = std::to_string(value);
      expectSays(messageOf([&] { EXPECT_EQ(std::to_string(parseValue(variable, text)), text); }),
                 possible && variable.writable ? "" : row.advice);
    };
    for (const std::int64_t value : row.possible) expectParsed(value, true);
    for (const std::int64_t value : row.impossible) expectParsed(value, false);
  }
  expectSays(messageOf([] { parseValue(*findCardVariable("qammode"), "64-QAM"); }), "'64-QAM'");
  EXPECT_EQ(valueWarning(*findCardVariable("rfreq"), 52001), "");
  EXPECT_EQ(valueWarning(*findCardVariable("symbolrate"), 6875), "");
  EXPECT_NE(valueWarning(*findCardVariable("symbolrate"), 6876), "");
}

TEST(CardVariables, ReadAsPeopleSayThem) {
  struct Row {
    const char* name;
    VariableValue value;
    const char* text;
  };
  const Row rows[] = {
      {"rfreq", 554000U, "554000 kHz"},     {"rflevel", 1005U, "1005 (100.5 dBuV)"},
      {"qammode2", 7U, "7 (256-QAM)"},      {"temperature2", 251U, "-5 deg C"},
      {"temperature2", 128U, "-128 deg C"}, {"total_rate1", std::string("38014Kb/s"), "38014Kb/s"},
  };
  for (const Row& row : rows) EXPECT_EQ(valueText(*findCardVariable(row.name), row.value), row.text);
}

}  // namespace
}  // namespace client
