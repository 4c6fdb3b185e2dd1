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
  const auto type = kTypes.find(static_cast<char>(letter | 0x20));
  if (letter == '.') {
    std::fill_n(reinterpret_cast<u8*>(&stored), sizeof stored, u8{0xFF});
  } else if (letter == '!') {
    stored.pid = 8191;
  } else if (letter == '?') {
    stored.psiType = 8;
  } else if (letter == '~') {
    stored.pid = 8190;
  } else {
    stored.psiType = static_cast<u8>(type);
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

// Module and model side by side: `disturb` says what happens before a tick and how much room the queue has.
// The posts, as "tick:index".
Lines postsAsModelled(QamCardPara& para, u8 slot, u8 port, int ticks,
                      const std::function<int(int)>& disturb) {
  CarouselModel model(para, slot, port);
  Lines posts;
  for (int t = 1; t <= ticks; ++t) {
    const int room = disturb(t);
    const auto expected = qam_is_setting_psi[slot][port] != 0 ? std::vector<u32>{} : model.tick(room);
    const auto posted = tick(slot, port, room);
    EXPECT_EQ(posted, expected) << "at tick " << t;
    if (posted != expected) break;
    for (const u32 index : posted) posts.push_back(fmt::format("{}:{}", t, index));
  }
  EXPECT_FALSE(posts.empty());
  return posts;
}

TEST_F(Carousel, PostsPacketsAtTheTicksOfTheirTable) {
  struct Row {
    const char* name;
    u8 slot, port;
    std::string store;
    u16 interval;
    std::string first = {};  // posts
  };
  const Row rows[] = {{"every 300 ticks", 0, 0, "Aaa", 300, "1:0 2:1 3:2 301:0 302:1 303:2 601:0 602:1"},
                      {"longer than the interval", 0, 0, "Aaaa", 2, "1:0 2:1 3:2 4:3 5:0 6:1"},
                      {"a section a group", 0, 0, "AaAaa", 10, "1:0 2:1 11:2 12:3 13:4 21:0"},
                      {"all PMT one group", 0, 0, "MmMM", 10, "2:0 3:1 4:2 5:3 12:0 13:1"},
                      {"staggered", 2, 1, "KBXNOCMA", 300, "15:7 16:6 17:5 18:4 19:3 20:2 21:1 22:0"},
                      {"an SDT holds back its PID", 0, 0, "CcccOB", 100, "3:0 4:1 5:2 6:3 6:4 7:5"},
                      {"startless packets stand alone", 0, 0, "aaA", 10, "1:0 11:1 20:2 30:0"},
                      {"PID 8191 is the end", 0, 0, "A!A", 2, "1:0 3:0 5:0"},
                      {"PID 8190 is not", 0, 0, "A~A", 2, "1:0 3:1 5:2"},
                      {"255 PMT", 0, 0, std::string(255, 'm'), 300},
                      {"256 PMT are never complete", 0, 0, std::string(256, 'M'), 300},
                      {"300 PMT wrap", 0, 0, std::string(300, 'm'), 400},
                      {"full store", 0, 0, "C" + std::string(300, 'c') + "O" + std::string(210, 'o'), 20},
                      {"section of 256 claims no PID", 0, 0, "C" + std::string(255, 'c') + "OB", 7}};
  fake.start(0);
  fake.start(2);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    QamCardPara& para = *GetQamCardParaFromList(row.slot);
    std::fill_n(para.Interval[row.port], 8, row.interval);
    rebuild(para, row.slot, row.port, row.store);
    const Lines posts = postsAsModelled(para, row.slot, row.port, 1500, [](int) { return 256; });
    EXPECT_TRUE(fmt::format("{}", fmt::join(posts, " ")).starts_with(row.first)) << fmt::format("{}", posts);
    EXPECT_EQ(Queue::of(g_qam_PsiSendQ_ID[row.slot][1 - row.port]).messages.size(), 0U);
  }
}

TEST_F(Carousel, KeepsToTheModelWithAnyStoreAndLoad) {
  for (u8 slot = 0; slot < 6; ++slot) fake.start(slot);
  for (u32 seed = 0; seed < 400; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](u32 n) { return static_cast<u32>(random() % n); };
    const auto oneIn = [&](u32 n) { return below(n) == 0; };
    const u8 slot = static_cast<u8>(below(6)), port = static_cast<u8>(below(2));
    QamCardPara& para = *GetQamCardParaFromList(slot);

    std::string store = "A";
    const std::string_view letters = oneIn(2) ? "amconxbkAMCONXBKccoobbnnxx" : "cobCOB";
    const u32 size = oneIn(8) ? 512 : 1 + below(40);
    while (store.size() < size)
      store += oneIn(100) ? "!?."[below(3)] : letters[below(static_cast<u32>(letters.size()))];
    rebuild(para, slot, port, store);
    const auto anyInterval = [&] { return static_cast<u16>(oneIn(8) ? 0 : 1 + below(oneIn(2) ? 6 : 60)); };
    std::generate_n(para.Interval[port], 8, anyInterval);
    para.Interval[port][PAT] = 5;
    if (oneIn(4)) para.pktNum[port][1 + below(7)] = 0;

    const bool busy = oneIn(2);
    const auto disturb = [&](int) {
      if (oneIn(40)) para.Interval[port][1 + below(7)] = anyInterval();
      qam_is_setting_psi[slot][port] = oneIn(30) ? 1 : 0;
      return static_cast<int>(busy ? below(4) : 8);
    };
    postsAsModelled(para, slot, port, 400, disturb);
    qam_is_setting_psi[slot][port] = 0;
    if (HasFailure()) break;
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
