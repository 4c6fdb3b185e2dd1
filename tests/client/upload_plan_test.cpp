// What the plan of an upload refuses, for a card cannot hold it.
#include "client/upload_plan.h"

#include <gtest/gtest.h>

#include "client/psi_capture.h"
#include "tests/client/messages.h"
#include "tests/client/streams.h"

namespace client {
namespace {

TEST(UploadPlan, RefusesWhatACardCannotHold) {
  struct Row {
    const char* name;
    std::vector<Section> sections;
    std::vector<const char*> reasons;
  };
  using test::onePacketSections;
  const auto tooMany = readCapture(std::filesystem::path(test::sample("psi-too-many.ts"))).sections;
  const Row rows[] = {
      {"as much as it holds", onePacketSections(0x42, 0x11, 512), {""}},
      {"one packet more", onePacketSections(0x42, 0x11, 513), {"513 packets"}},
      {"as many maps as it sends", onePacketSections(2, 0x100, 255), {""}},
      {"one map more", onePacketSections(2, 0x100, 256), {"PMTs take 256"}},
      {"two reasons", tooMany, {"534 packets", "PMTs take 300"}},
      {"PID 0xbff", onePacketSections(2, 0xBFF, 1), {"PID 0x0bff"}},
      {"PID 0x3fe", onePacketSections(2, 0x3FE, 1), {""}},
      {"nothing", {}, {""}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string message = test::messageOf([&] { planUpload(row.sections); });
    for (const char* reason : row.reasons) test::expectSays(message, reason);
  }
}

}  // namespace
}  // namespace client
