#include "headend/hardware/dac.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cctype>

#include "tests/headend/hardware/i2c_lines.h"

namespace test {
namespace {

// Keeps exactly the least times, unless told to miss one.
struct Port {
  headend::Violations violations;
  headend::Dac part{"dac", violations};
  Nanos setup = 25, select = 25, high = 30, low = 37, width = 2;
  Nanos now = 1000;

  bool bit(bool level) {  // what SDO shows at the rise
    part.dataIn(level, now);
    const bool seen = (now += setup, part.dataOut());
    part.clock(true, now);
    part.clock(false, now += high);
    now += low - setup;
    return seen;
  }
  // Acts: "[" selects, "]" deselects, "R" and "r" are the edges of reset, "." is a clock, "s" shortens the
  // setup time from here on, two digits are a byte. Returns the last byte seen.
  unsigned run(const std::string& script) {
    unsigned seen = 0;
    part.chipSelect(true, now);
    for (std::size_t i = 0; i < script.size(); ++i) {
      const char act = script[i];
      if (act == '[') part.chipSelect(false, now), now += select - setup;
      if (act == ']') part.chipSelect(true, now);
      if (act == 'R' || act == 'r') part.reset(act == 'R', now += width);
      if (act == '.') bit(true);
      if (act == 's') --setup, ++now;
      if (std::isxdigit(act) == 0) continue;
      const unsigned long value = std::stoul(script.substr(i++, 2), nullptr, 16);
      for (int place = 7; place >= 0; --place) seen = seen << 1 | (bit((value >> place & 1) != 0) ? 1U : 0U);
    }
    return seen & 0xFF;
  }
};

TEST(Dac, WritesAndReadsThirteenPlainBytes) {
  Port port;
  for (unsigned i = 0; i < 13; ++i) EXPECT_EQ(port.run(fmt::format("[{:02X}{:02X}]", i, 0xFF - i * 0x13)), 0);
  for (unsigned i = 0; i < 13; ++i) EXPECT_EQ(port.run(fmt::format("[{:02X}00]", 0x80 + i)), 0xFF - i * 0x13);
  for (unsigned i = 0; i < 13; ++i) EXPECT_EQ(port.part.reg(static_cast<u8>(i)), 0xFF - i * 0x13);
}

TEST(Dac, DoesWhatItIsToldAndTellsWhatIsWrong) {
  struct Row {
    const char *kinds, *script;
    unsigned seen = 0;  // last
    Nanos Port::*time = nullptr;
    Nanos change = -1;
  };
  const Row rows[] = {{"", "[6B 01 02 03 04] [A9 00 00]", 4},
                      {"", "[0C 1B] [AD 00 00]", 0x1B},
                      {"", "[05 3C] 05 77 [] [85 00]", 0x3C},
                      {"", "[05 3C] [01 3C] Rr [85 00] [81 00]", 4},
                      {"", "[85 00] 00"},
                      {"", "[00 1F]"},
                      {"at risk", "[00 20]"},
                      {"at risk", "[00 40]"},
                      {"at risk", "[00 80]"},
                      {"dac_frame_cut_short", "[.] [05 3C] [85 00]", 0x3C},
                      {"dac_frame_cut_short", "[05]"},
                      {"dac_frame_cut_short", "[05 .......] [85 00]"},
                      {"dac_frame_cut_short", "[25 3C] [85 00]", 0x3C},
                      {"dac_second_instruction", "[04 11 05 22] [85 00]", 0x22},
                      {"dac_reset_in_frame", "[05 Rr 05 09] [85 00]", 9},
                      {"dac_clock_in_reset", "R[05 3C]r[85 00]"},
                      {"dac_reset_short", "Rr", 0, &Port::width},
                      {"dac_no_such_register", "[0D 01]"},
                      {"dac_no_such_register", "[A0 00 00]"},
                      {"dac_data_setup_short", "[05 s 3C]"},
                      {"", "[85 s 3C]"},
                      {"dac_select_setup_short", "[80 00]", 0, &Port::select},
                      {"dac_clock_high_short dac_clock_period_short", "[80 00]", 0, &Port::high},
                      {"dac_clock_period_short", "[80 00]", 0, &Port::low},
                      {"dac_clock_low_short dac_clock_period_short", "[80 00]", 0, &Port::low, -8}};
  for (const Row& row : rows) {
    SCOPED_TRACE(row.script);
    Port port;
    if (row.time != nullptr) port.*row.time += row.change;
    EXPECT_EQ(port.run(row.script), row.seen);
    EXPECT_FALSE(port.part.dataOut());
    EXPECT_EQ(port.part.portAtRisk() ? "at risk" : kinds(port.violations), row.kinds);
  }
}

}  // namespace
}  // namespace test
