// The datagram and the link over UDP.
#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "client/datagram.h"
#include "client/udp_link.h"
#include "tests/client/fake_server.h"

namespace client {
namespace {

using namespace std::chrono_literals;

const Request kRequest{.operation = Operation::kWrite,
                       .sequence = 0x01020304,
                       .variable = 0x3102,
                       .slot = 5,
                       .port = 1,
                       .length = 2,
                       .data = {0xAA, 0xBB}};

Reply refusalOf(const Request& request) {
  Reply reply = replyTo(request);
  reply.result = kStoreFull;
  reply.data = {1, 2, 3};
  return reply;
}

// Clients of other makers send these bytes too: they are an interface.
TEST(Datagram, HasItsFieldsInTheirPlaces) {
  EXPECT_EQ(encode(kRequest), (Bytes{'Q', 'M', 1, 2, 1, 2, 3, 4, 0x31, 0x02, 0, 5,    0,
                                     0,   0,   1, 0, 2, 0, 0, 0, 0,    0,    0, 0xAA, 0xBB}));
  EXPECT_EQ(encode(refusalOf(kRequest)), (Bytes{'Q', 'M', 1, 0x82, 1, 2, 3, 4, 0x31, 0x02, 0, 5, 0, 0, 0, 1,
                                                0,   3,   0, 0,    0, 0, 0, 0, 0,    0,    0, 1, 1, 2, 3}));
}

// Generous with tries, so that a slow machine changes nothing.
constexpr UdpLinkOptions kPatient{.timeout = 50ms, .tries = 200, .total = 0ms};

TEST(UdpLink, RepeatsARequestUntilItIsAnswered) {
  std::vector<u32> sequences;
  test::FakeServer server([&](const Request& r) {
    sequences.push_back(r.sequence);
    return sequences.size() < 3 ? std::vector<Bytes>{} : std::vector<Bytes>{encode(refusalOf(r))};
  });
  UdpLink link(server.address(), kPatient);
  EXPECT_EQ(link.call(kRequest).data, (Bytes{1, 2, 3}));
  ASSERT_GE(sequences.size(), 3u);
  EXPECT_EQ(std::set(sequences.begin(), sequences.end()).size(),
            1u);  // so that the server carries it out once
}

TEST(UdpLink, PassesOverWhatDoesNotAnswerItsRequest) {
  test::FakeServer server([](const Request& r) {
    const Reply good = refusalOf(r);
    std::vector<Reply> wrong(5, good);
    wrong[0].sequence -= 1;
    wrong[1].variable ^= 1;
    wrong[2].slot ^= 1;
    wrong[3].port ^= 1;
    wrong[4].operation = 1;
    std::vector<Bytes> datagrams = {{}, Bytes(27, 'Q'), encode(r)};
    for (Reply& w : wrong) {
      w.data = {9};
      datagrams.push_back(encode(w));
    }
    datagrams.push_back(encode(good));
    return datagrams;
  });
  UdpLink link(server.address(), kPatient);
  std::set<u32> sequences;
  for (int i = 0; i < 3; ++i) {
    const Reply reply = link.call(kRequest);
    EXPECT_EQ(reply.data, (Bytes{1, 2, 3}));
    sequences.insert(reply.sequence);
  }
  EXPECT_EQ(sequences.size(), 3u);
  UdpLink later(server.address(), kPatient);
  EXPECT_FALSE(sequences.contains(later.call(kRequest).sequence));
}

}  // namespace
}  // namespace client
