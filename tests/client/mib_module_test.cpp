// The MIB module that qamctl prints and that lies in mibs/, and the bases that it may have. Whether it is
// right is for tests/e2e/mib.py, with tools that others wrote.
#include "client/mib_module.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/client/program.h"

namespace client {
namespace {

TEST(MibModule, LiesInTheTreeAsItIsPrinted) {
  std::ifstream file(QAM_MIB);
  std::ostringstream text;
  text << file.rdbuf();
  const auto qamctl = [](const std::string& more) {
    return test::runProgram(std::string(QAMCTL) + " mib" + more);
  };
  const std::string module = mibModule(kDefaultMibBase);
  EXPECT_EQ(text.str(), module) << "qamctl mib > mibs/QAM-HEADEND-MIB.txt makes it anew";
  EXPECT_EQ(qamctl("").text, module);
  EXPECT_EQ(qamctl(" --base .1.3.6.1.4.1.8072.9999.9999.27").text, module);
  EXPECT_NE(qamctl(" --base 1.3.6.1.4.1.8072.9999.9999.28").text, module);
  EXPECT_EQ(qamctl(" >/dev/full").code, 1);
  test::expectWrongCalls(qamctl,
                         " --base; --base 1.3.6; --base 1.3.6.1.4.1.32473.1.2.3.4; 1.3.6.1.4.1.32473.1.2.3");
  test::expect(qamctl(" --base 1.3.6"), 2, "ten numbers with dots");
}

TEST(MibBase, IsTenNumbersWithDots) {
  struct Row {
    const char* text;
    const char* refusal;  // a part of it; null: taken
  };
  const Row rows[] = {
      {"1.3.6.1.4.1.8072.9999.9999.27", nullptr},
      {"0.39.0.0.0.0.0.0.0.4294967295", nullptr},
      {"2.4294967215.6.1.4.1.1.2.3.4", nullptr},
      {"", "no number"},
      {"..1.3.6.1.4.1.1.2.3.4", "no number"},
      {"1.3.6.1.4.1.1.2.3.4.", "no number"},
      {"1.3.6..4.1.1.2.3.4", "no number"},
      {"1.3.6.1.4.1.1.2.3.-4", "no number"},
      {"1.3.6.1.4.1.1.2.3.4 ", "no number"},
      {"1.3.6.1.4.1.1.2.3.0x4", "no number"},
      {"1.3.6.1.4.1.1.2.3.4294967296", "above 4294967295"},
      {"1.3.6.1.4.1.1.2.3", "9 components"},
      {"1.3.6.1.4.1.32473.1.2.3.4", "11 components"},
      {"3.3.6.1.4.1.1.2.3.4", "above 2"},
      {"0.40.6.1.4.1.1.2.3.4", "above 39"},
      {"1.40.6.1.4.1.1.2.3.4", "above 39"},
      {"2.4294967216.6.1.4.1.1.2.3.4", "above 4294967215"},
  };
  for (const Row& row : rows) {
    std::string refusal;
    try {
      EXPECT_EQ(mibBaseText(parseMibBase(row.text)), row.text);
      EXPECT_EQ(mibBaseText(parseMibBase(std::string(".") + row.text)), row.text);
    } catch (const std::invalid_argument& e) {
      refusal = e.what();
    }
    EXPECT_EQ(refusal.empty(), row.refusal == nullptr) << row.text << ": " << refusal;
    if (row.refusal == nullptr) continue;
    EXPECT_NE(refusal.find(row.refusal), std::string::npos) << row.text << ": " << refusal;
    EXPECT_NE(refusal.find("such as 1.3.6.1.4.1.8072.9999.9999.27"), std::string::npos) << refusal;
  }
}

}  // namespace
}  // namespace client
