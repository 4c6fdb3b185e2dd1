// The plan of an upload: packets in chunks, and what a card cannot hold.
#include "client/upload_plan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "client/psi_capture.h"
#include "tests/client/messages.h"
#include "tests/client/streams.h"

namespace client {
namespace {

std::vector<Section> sectionsOf(const char* name) {
  return readCapture(std::filesystem::path(test::sample(name))).sections;
}

// Whatever order the sections come in.
TEST(UploadPlan, PacksEverySectionInOrderIntoChunksOfOnePidAndTable) {
  const auto sections = sectionsOf("psi-full.ts");
  auto shuffled = sections;
  std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
  const UploadPlan plan = planUpload(shuffled);
  std::vector<Packet> packets;
  std::array<std::size_t, kTableCount> byTable{};
  for (const Chunk& chunk : plan.chunks) {
    EXPECT_TRUE(!chunk.packets.empty() && chunk.packets.size() <= 7);
    byTable.at(indexOf(*tableOfId(chunk.tableId))) += chunk.packets.size();
    for (const Section& s : gatherSections(chunk.packets))
      EXPECT_TRUE(s.pid == chunk.pid && s.tableId() == chunk.tableId);
    packets.insert(packets.end(), chunk.packets.begin(), chunk.packets.end());
  }
  EXPECT_EQ(gatherSections(packets), sections);
  EXPECT_EQ(plan.packets, 503u);
  EXPECT_EQ(packets.size(), 503u);
  for (const TableType type : kAllTables) {
    EXPECT_EQ(plan.tables.at(indexOf(type)).packets, byTable.at(indexOf(type))) << tableName(type);
  }
}

std::vector<Section> packetsOf(u8 tableId, u16 pid, u16 count) {
  std::vector<Section> sections;
  for (u16 i = 0; i < count; ++i)
    sections.push_back(test::makeSection({.pid = pid, .tableId = tableId, .extension = i}, 100));
  return sections;
}

TEST(UploadPlan, RefusesWhatACardCannotHold) {
  struct Row {
    const char* name;
    std::vector<Section> sections;
    std::vector<const char*> reasons;
  };
  const Row rows[] = {
      {"as much as it holds", packetsOf(0x42, 0x11, 512), {""}},
      {"one packet more", packetsOf(0x42, 0x11, 513), {"513 packets"}},
      {"as many maps as it sends", packetsOf(2, 0x100, 255), {""}},
      {"one map more", packetsOf(2, 0x100, 256), {"PMTs take 256"}},
      {"psi-too-many", sectionsOf("psi-too-many.ts"), {"534 packets", "PMTs take 300"}},
      {"PID 0xbff", packetsOf(2, 0xBFF, 1), {"PID 0x0bff"}},
      {"PID 0x3fe", packetsOf(2, 0x3FE, 1), {""}},
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
