// The carousel: what `qamIntr` posts at which tick, from which store.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <random>

#include "tests/module/carousel_model.h"
#include "tests/module/chassis.h"

namespace test {
namespace {

// A store in letters, one a packet: a PAT, m PMT, c and o SDT, n and x NIT, b BAT, k CAT, capital with the
// start indicator. What ends a store: . erased, ! on PID 8191, ? of type 8. ~ starts a PAT on PID 8190.
outPsiPkt_t packet(char letter) {
  constexpr std::string_view kTypes = "amconxbk";
  outPsiPkt_t stored{.pid = 0x100, .psiType = PAT, .counter = 0xFF, .psiData = {0x47, 0x40}};
  if (letter == '.') {
    std::fill_n(reinterpret_cast<u8*>(&stored), sizeof stored, u8{0xFF});
  } else if (letter == '!' || letter == '~') {
    stored.pid = letter == '!' ? 8191 : 8190;
  } else if (letter == '?') {
    stored.psiType = 8;
  } else {
    stored.psiType = static_cast<u8>(kTypes.find(static_cast<char>(letter | 0x20)));
    if ((letter & 0x20) != 0) stored.psiData[1] = 0x1F;
  }
  return stored;
}

void rebuild(QamCardPara& para, u8 slot, u8 port, const std::string& store) {
  std::fill_n(para.pktNum[port], 8, u16{0});
  std::fill_n(para.psiPkt[port], 512, packet('.'));
  for (std::size_t i = 0; i < store.size(); ++i) {
    para.psiPkt[port][i] = packet(store[i]);
    if (para.psiPkt[port][i].psiType < 8) ++para.pktNum[port][para.psiPkt[port][i].psiType];
  }
  qam_is_setting_psi[slot][port] = 1;
  QamSetPsiInterval(slot, port);
  qam_is_setting_psi[slot][port] = 0;
}

// What a tick posts to a queue with so much room.
std::vector<u32> tick(u8 slot, u8 port, int room = 256) {
  Queue& queue = Queue::of(g_qam_PsiSendQ_ID[slot][port]);
  queue.messages.clear();
  queue.room = room;
  chassis::GetCardPoint(slot)->auxClkIntRoutine(slot);
  return queue.messages;
}

using Carousel = ModuleTest;

// Told by hand; the model, which tells any other, agrees.
TEST_F(Carousel, PostsPacketsAtTheTicksOfTheirTable) {
  struct Row {
    const char* name;
    u8 slot, port;
    const char* store;
    u16 interval;
    std::string posts;  // the first, as tick:index
  };
  const Row rows[] = {{"longer than the interval", 0, 0, "Aaaa", 2, "1:0 2:1 3:2 4:3 5:0 6:1 "},
                      {"a section a group", 0, 0, "AaAaa", 10, "1:0 2:1 11:2 12:3 13:4 21:0 "},
                      {"all PMT one group", 0, 0, "MmMM", 10, "2:0 3:1 4:2 5:3 12:0 13:1 "},
                      {"staggered", 2, 1, "KBXNOCMA", 300, "15:7 16:6 17:5 18:4 19:3 20:2 21:1 22:0 "},
                      {"an SDT holds back its PID", 0, 0, "CcccOB", 100, "3:0 4:1 5:2 6:3 6:4 7:5 "},
                      {"startless packets stand alone", 0, 0, "aaA", 10, "1:0 11:1 20:2 30:0 "}};
  for (const Row& row : rows) {
    QamCardPara& para = *fake.start(row.slot);
    std::fill_n(para.Interval[row.port], 8, row.interval);
    rebuild(para, row.slot, row.port, row.store);
    std::string posts;
    for (int t = 1; posts.size() < row.posts.size() && t < 400; ++t)
      for (const u32 index : tick(row.slot, row.port)) posts += fmt::format("{}:{} ", t, index);
    EXPECT_EQ(posts, row.posts) << row.name;
  }
}

// Module and model side by side.
TEST_F(Carousel, KeepsToTheModelWithAnyStoreAndLoad) {
  for (u8 slot = 0; slot < 6; ++slot) fake.start(slot);
  for (u32 seed = 0; seed < 400; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](u32 n) { return static_cast<u32>(random() % n); };
    const auto oneIn = [&](u32 n) { return below(n) == 0; };
    const u8 slot = static_cast<u8>(below(6)), port = static_cast<u8>(below(2));
    QamCardPara& para = *GetQamCardParaFromList(slot);

    // Mixtures, PIDs that tables share, and groups of 255 packets and more.
    const std::string_view letters[] = {"amconxbkAMCONXBKccoobbnnxx", "cobCOB", "mM", "c"};
    const std::string_view kind = letters[oneIn(8) ? 2 + below(2) : below(2)];
    const bool isLong = oneIn(8) || kind.size() < 3;
    const u32 size = !isLong ? 1 + below(40) : oneIn(2) ? 254 + below(6) : 260 + below(250);
    std::string store = kind == "c" ? "AC" : "A";
    while (store.size() < size)
      store += oneIn(isLong ? 1000 : 100) ? "!?.~"[below(4)] : kind[below(static_cast<u32>(kind.size()))];
    if (kind == "c") store += "OB";
    rebuild(para, slot, port, store);
    const auto anyInterval = [&] { return static_cast<u16>(oneIn(8) ? 0 : 1 + below(oneIn(2) ? 6 : 400)); };
    std::generate_n(para.Interval[port], 8, anyInterval);
    if (oneIn(4)) para.pktNum[port][1 + below(7)] = 0;

    CarouselModel model(para, slot, port);
    const bool busy = oneIn(2);
    for (int t = 1; t <= (isLong ? 1000 : 300); ++t) {
      if (oneIn(40)) para.Interval[port][below(8)] = anyInterval();
      qam_is_setting_psi[slot][port] = oneIn(30) ? 1 : 0;
      const int room = static_cast<int>(busy ? below(4) : 8);
      const auto expected = qam_is_setting_psi[slot][port] != 0 ? std::vector<u32>{} : model.tick(room);
      ASSERT_EQ(tick(slot, port, room), expected) << "at tick " << t;
      ASSERT_TRUE(Queue::of(g_qam_PsiSendQ_ID[slot][1 - port]).messages.empty());
    }
    rebuild(para, slot, port, "");
    tick(slot, port);
  }
}

TEST_F(Carousel, ARebuildGivesBackEveryNode) {
  QamCardPara& para = *fake.start(0);
  const std::size_t before = fake.blocks.size();
  std::string full(512, 'a');
  for (std::size_t i = 0; i < full.size(); ++i) full[i] = "AmconxbkaM"[i % 10];
  for (const std::string& store : {full, std::string("A"), full, std::string("CcB"), std::string()}) {
    rebuild(para, 0, 1, store);
    EXPECT_EQ(fake.blocks.size() - before, store.size());
    tick(0, 1);
  }
}

}  // namespace
}  // namespace test
