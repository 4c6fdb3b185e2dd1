// The link over UDP. What stands where in a datagram is for the end-to-end tests' own client.
#include <gtest/gtest.h>

#include <set>

#include "client/udp_link.h"
#include "tests/client/loopback.h"

namespace client {
namespace {

// Repeated under its number, so that the server carries it out once.
TEST(Link, RepeatsARequestAndTakesNothingButItsReply) {
  std::vector<u32> sequences;
  test::LoopbackServer server([&](const Bytes& datagram) {
    const Request request = decodeRequest(datagram).value();
    sequences.push_back(request.sequence);
    if (sequences.size() < 3) return std::vector<Bytes>{};
    std::vector<Reply> replies(6, replyTo(request));
    replies[0].sequence -= 1;
    replies[1].variable ^= 1;
    replies[2].slot ^= 1;
    replies[3].port ^= 1;
    replies[4].operation = 1;
    replies[5].data = {1};
    std::vector<Bytes> datagrams = {{}, Bytes(27, 'Q'), datagram};
    for (const Reply& reply : replies) datagrams.push_back(encode(reply));
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
      const Reply reply = link->call(makeRequest(Operation::kWrite, 0x3102, 5, 1, {}));
      EXPECT_EQ(reply.data, Bytes{1});
      replies.insert(reply.sequence);
    }
    EXPECT_EQ(replies.size(), 3u);
  });
  EXPECT_EQ(std::set(sequences.begin(), sequences.begin() + 3).size(), 1u);
}

}  // namespace
}  // namespace client
