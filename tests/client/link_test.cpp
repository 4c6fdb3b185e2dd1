// The datagram, and the link over UDP.
#include <gtest/gtest.h>

#include <set>

#include "client/udp_link.h"
#include "tests/client/loopback.h"

namespace client {
namespace {

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
TEST(Link, SendsFieldsInTheirPlaces) {
  EXPECT_EQ(encode(kRequest), (Bytes{'Q', 'M', 1, 2, 1, 2, 3, 4, 0x31, 0x02, 0, 5,    0,
                                     0,   0,   1, 0, 2, 0, 0, 0, 0,    0,    0, 0xAA, 0xBB}));
  EXPECT_EQ(encode(refusalOf(kRequest)), (Bytes{'Q', 'M', 1, 0x82, 1, 2, 3, 4, 0x31, 0x02, 0, 5, 0, 0, 0, 1,
                                                0,   3,   0, 0,    0, 0, 0, 0, 0,    0,    0, 1, 1, 2, 3}));
}

// Repeated under its number, so that the server carries it out once.
TEST(Link, RepeatsARequestAndTakesNothingButItsReply) {
  std::vector<u32> sequences;
  test::LoopbackServer server([&](const Bytes& datagram) {
    const Request request = decodeRequest(datagram).value();
    sequences.push_back(request.sequence);
    if (sequences.size() < 3) return std::vector<Bytes>{};
    const Reply good = refusalOf(request);
    std::vector<Reply> wrong(5, good);
    wrong[0].sequence -= 1;
    wrong[1].variable ^= 1;
    wrong[2].slot ^= 1;
    wrong[3].port ^= 1;
    wrong[4].operation = 1;
    std::vector<Bytes> datagrams = {{}, Bytes(27, 'Q'), datagram};
    for (Reply& w : wrong) {
      w.data = {9};
      datagrams.push_back(encode(w));
    }
    datagrams.push_back(encode(good));
    return datagrams;
  });
  server.serve([&] {
    using std::chrono::milliseconds;
    constexpr UdpLinkOptions kPatient{
        .timeout = milliseconds(50), .tries = 1000, .total = milliseconds(0)};  // also on a slow machine
    std::set<u32> replies;
    UdpLink first(server.address(), kPatient);
    UdpLink second(server.address(), kPatient);
    for (UdpLink* link : {&first, &first, &second}) {
      const Reply reply = link->call(kRequest);
      EXPECT_EQ(reply.data, (Bytes{1, 2, 3}));
      replies.insert(reply.sequence);
    }
    EXPECT_EQ(replies.size(), 3u);
  });
  EXPECT_EQ(std::set(sequences.begin(), sequences.begin() + 3).size(), 1u);
}

}  // namespace
}  // namespace client
