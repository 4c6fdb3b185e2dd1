// The VCD file, byte for byte. Patterns are tried in tests/e2e/calibration.py and bad_input.py.
#include "headend/vcd_trace.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/headend/scratch.h"

namespace test {
namespace {

using headend::VcdTrace;

TEST(VcdTrace, WritesChangesOfTheTracedRegistersInOrderOfTime) {
  const Scratch scratch;
  const std::string file = scratch.path / "trace.vcd";
  {
    VcdTrace trace(file, std::vector{0, 4}, std::vector<std::string>{"slot5.nrst", "att_q1_[cd]*"});
    const u32 clock = headend::offsetOf("att_q1_clk");
    trace.note(0, clock, 0, 100);                           // unchanged
    trace.note(0, headend::offsetOf("nrst"), 3, 200);       // of a slot that is not traced
    trace.note(4, headend::offsetOf("att_q1_le"), 1, 200);  // not traced anywhere
    trace.note(0, clock, 1, 300);
    trace.note(4, headend::offsetOf("nrst"), 0x8003, 300);  // at the same time: no time stamp
    trace.note(0, clock, 0xFFFF, 400);                      // a line is bit 0
    trace.note(4, headend::offsetOf("att_q1_dat"), 21, 600);
    trace.note(0, clock, 0xFFFE, 500);  // reported late
    EXPECT_TRUE(trace.finish(1000));
  }
  std::string text = readText(file);
  std::ranges::replace(text, '\n', '|');
  EXPECT_EQ(
      text,
      "$version headend $end|$timescale 1 ns $end|"
      "$scope module slot1 $end|$var wire 1 ! att_q1_dat $end|$var wire 1 \" att_q1_clk $end|$upscope $end|"
      "$scope module slot5 $end|$var wire 16 # nrst $end|$var wire 1 $ att_q1_dat $end|"
      "$var wire 1 % att_q1_clk $end|$upscope $end|$enddefinitions $end|"
      "#0|$dumpvars|0!|0\"|b0 #|0$|0%|$end|#300|1\"|b1000000000000011 #|#600|1$|0\"|#1000|");
}

}  // namespace
}  // namespace test
