// The MIB module that qamctl prints and that lies in mibs/, and the bases that it may have. Whether it is
// right is for tests/e2e/mib.py, with tools that others wrote.
#include "client/mib_module.h"

#include <gtest/gtest.h>

#include "tests/client/program.h"
#include "tests/headend/scratch.h"

namespace client {
namespace {

TEST(MibModule, LiesInTheTreeAsItIsPrinted) {
  const auto qamctl = [](const std::string& more) {
    return test::runProgram(std::string(QAMCTL) + " mib" + more);
  };
  const std::string module = mibModule(kDefaultMibBase);
  EXPECT_EQ(test::readText(QAM_MIB), module) << "qamctl mib > mibs/QAM-HEADEND-MIB.txt makes it anew";
  EXPECT_EQ(qamctl("").text, module);
  EXPECT_EQ(qamctl(" >/dev/full").code, 1);
  test::expectWrongCalls(qamctl, " --base; 1.3.6.1.4.1.32473.1.2.3");
  test::expect(qamctl(" --base 1.3.6"), 2, "ten numbers with dots");
}

TEST(MibModule, HasABaseOfTenNumbersWithDots) {
  const std::pair<const char*, const char*> rows[] = {
      // with a part of the refusal
      {"1.3.6.1.4.1.8072.9999.9999.27", ""},  {"0.39.0.0.0.0.0.0.0.4294967295", ""},
      {"2.4294967215.6.1.4.1.1.2.3.4", ""},   {"", "no number"},
      {"..1.3.6.1.4.1.1.2.3.4", "no number"}, {"1.3.6.1.4.1.1.2.3.4.", "no number"},
      {"1.3.6.1.4.1.1.2.3.4 ", "no number"},  {"1.3.6.1.4.1.1.2.3.4294967296", "above 4294967295"},
      {"1.3.6.1.4.1.1.2.3", "9 components"},  {"1.3.6.1.4.1.32473.1.2.3.4", "11 components"},
      {"3.3.6.1.4.1.1.2.3.4", "above 2"},     {"0.40.6.1.4.1.1.2.3.4", "above 39"},
      {"1.40.6.1.4.1.1.2.3.4", "above 39"},   {"2.4294967216.6.1.4.1.1.2.3.4", "above 4294967215"},
  };
  for (const auto& [text, refusal] : rows) {
    const auto parse = [&, &base = text] { EXPECT_EQ(mibBaseText(parseMibBase(base)), base); };
    test::expectSays(test::messageOf(parse), refusal);
  }
  EXPECT_EQ(mibBaseText(parseMibBase(".1.3.6.1.4.1.1.2.3.4")), "1.3.6.1.4.1.1.2.3.4");
}

}  // namespace
}  // namespace client
