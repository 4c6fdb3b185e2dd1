#include <gtest/gtest.h>

#include <map>

#include "tests/headend/headend_run.h"

namespace test {
namespace {

// Indices still in the send queues when a store is erased would put erased packets on the air.
TEST(BackEnd, AnUploadUnderPressureLetsNoErasedPacketOut) {
  const Scratch scratch;
  headend::initFlash(scratch.path / "flash");
  auto options = fastOptions(scratch.path, 7 * kSecond);
  options.kernel.costs.busAccess = 220;  // the send tasks are busy most of the time
  client::Intervals always;
  for (const client::TableType type : client::kAllTables) always[type] = 1;
  for (const u32 port : {0U, 1U}) {
    options.intervals[{0, port}] = always;
    options.outputs[{0, port}] = scratch.path / ("out" + std::to_string(port));
    for (int upload = 0; upload < 12; ++upload) {
      options.psi.push_back(
          {.channel = {0, port},
           .file = upload % 2 == 0 ? QAM_SAMPLES "/psi-many.ts" : QAM_SAMPLES "/psi-small.ts",
           .at = upload * (400'000'000 + 137'000 * (Nanos{port} + 1))});
    }
  }
  Headend headend(options);
  EXPECT_EQ(run(headend), headend::kExitDone);
  for (const auto& [kind, count] : headend.violations().counts()) ADD_FAILURE() << kind << ' ' << count;
  for (const u32 port : {0U, 1U}) {
    const Bytes out = readFile(scratch.path / ("out" + std::to_string(port)));
    EXPECT_GT(headend.card(0).output(port).counts().psi, 10'000U);
    ASSERT_EQ(out.size() % 188, 0U);
    std::map<int, u8> continuity;
    std::size_t wrong = 0;
    for (std::size_t at = 0; at < out.size(); at += 188) {
      const int pid = (out[at + 1] & 0x1F) << 8 | out[at + 2];
      const u8 count = out[at + 3] & 0x0F;
      wrong += out[at] == 0x47 ? 0 : 1;
      if (pid == 0x1FFF) continue;
      wrong += continuity.contains(pid) && count != ((continuity[pid] + 1) & 0x0F) ? 1 : 0;
      continuity[pid] = count;
    }
    EXPECT_EQ(wrong, 0U);
  }
}

}  // namespace
}  // namespace test
