#include "client/upload_plan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "client/psi_capture.h"
#include "tests/client/streams.h"

namespace client {
namespace {

using test::makeSection;

std::vector<Section> sectionsOf(const char* name) {
  return readCapture(std::filesystem::path(test::sample(name))).sections;
}

std::vector<Packet> packetsOf(const UploadPlan& plan) {
  std::vector<Packet> packets;
  for (const Chunk& chunk : plan.chunks)
    packets.insert(packets.end(), chunk.packets.begin(), chunk.packets.end());
  return packets;
}

// Whatever order the sections come in.
TEST(UploadPlan, PacksEverySectionInOrderIntoChunksOfOnePidAndTable) {
  struct Row {
    const char* file;
    std::size_t packets;
  };
  for (const Row& row : {Row{"psi-small.ts", 8}, Row{"psi-many.ts", 99}, Row{"psi-full.ts", 503}}) {
    const auto sections = sectionsOf(row.file);
    auto shuffled = sections;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(7));
    const UploadPlan plan = planUpload(shuffled);
    EXPECT_EQ(plan.packets, row.packets) << row.file;
    EXPECT_EQ(gatherSections(packetsOf(plan)), sections) << row.file;

    std::map<int, u8> continuity;
    std::array<std::size_t, kTableCount> packets{};
    for (const Chunk& chunk : plan.chunks) {
      EXPECT_TRUE(!chunk.packets.empty() && chunk.packets.size() <= 7) << row.file;
      packets[indexOf(*tableOfId(chunk.tableId))] += chunk.packets.size();
      for (const Packet& p : chunk.packets) {
        EXPECT_EQ((p[1] & 0x1F) << 8 | p[2], chunk.pid);
        EXPECT_EQ(p[3], 0x10 | (continuity[chunk.pid]++ & 0x0F));
        const bool start = (p[1] & 0x40) != 0;
        EXPECT_TRUE(!start || (p[4] == 0 && p[5] == chunk.tableId)) << row.file;
      }
    }
    for (const TableType type : kAllTables)
      EXPECT_EQ(plan.tables[indexOf(type)].packets, packets[indexOf(type)]);
  }
}

std::vector<Section> sdts(std::size_t packets) {
  std::vector<Section> sections;
  for (std::size_t i = 0; i < packets; ++i)
    sections.push_back(makeSection({.extension = static_cast<u16>(i)}, 100));
  return sections;
}

std::vector<Section> pmts(std::size_t packets, u16 pid = 0x100) {
  std::vector<Section> sections;
  for (std::size_t i = 0; i < packets; ++i)
    sections.push_back(makeSection({.pid = pid, .tableId = 2, .extension = static_cast<u16>(i)}, 100));
  return sections;
}

TEST(UploadPlan, RefusesWhatACardCannotHold) {
  struct Row {
    const char* what;
    std::vector<Section> sections;
    std::vector<std::string> reasons;  // none: it fits
  };
  const Row rows[] = {
      {"as much as it holds", sdts(512), {}},
      {"one packet more", sdts(513), {"513 packets"}},
      {"as many maps as it sends", pmts(255), {}},
      {"one map more", pmts(256), {"PMTs take 256"}},
      {"psi-too-many", sectionsOf("psi-too-many.ts"), {"534 packets", "PMTs take 300"}},
      {"psi-pid-1ff", sectionsOf("psi-pid-1ff.ts"), {"PID 0x01ff"}},
      {"PID 0xbff", pmts(1, 0xBFF), {"PID 0x0bff"}},
      {"PID 0x3fe", pmts(1, 0x3FE), {}},
      {"nothing", {}, {}},
  };
  for (const Row& row : rows) {
    std::string message;
    try {
      planUpload(row.sections);
    } catch (const PlanError& e) {
      message = e.what();
    }
    EXPECT_EQ(message.empty(), row.reasons.empty()) << row.what << ": " << message;
    for (const auto& reason : row.reasons)
      EXPECT_NE(message.find(reason), std::string::npos) << row.what << ": " << message;
  }
}

}  // namespace
}  // namespace client
