// A chassis as a client meets it when programmes come and go: a card's tables, its PID maps with the router,
// and the sections that one input carries.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "tests/client/fake_card.h"
#include "tests/client/fake_router_card.h"

namespace test {

class FakeChassis {
 public:
  FakeCard card;
  FakeRouterCard router;
  std::map<std::pair<u16, u8>, std::vector<Bytes>> input;  // by PID and table_id
  int handled = 0;
  bool reachesTheAir = false;  // what the last request did

  Reply handle(const Request& r) {
    ++handled;
    reachesTheAir = r.operation == client::Operation::kWrite &&
                    (r.variable == client::kVarPsiLock || r.variable == client::kVarPidMapLock);
    if (r.operation == client::Operation::kSourceSections) return sections(r);
    const bool ofMap = r.operation == client::Operation::kRouterMap || r.variable == client::kVarPidMapLock ||
                       r.variable == client::kVarPidMapChunk;
    return ofMap ? router.handle(r) : card.handle(r);
  }

 private:
  Reply sections(const Request& r) {
    Reply reply = client::replyTo(r);
    if (r.length != r.data.size()) {
      reply.result = client::kBadLength;
      return reply;
    }
    const auto& found = input[{wire::get16(r.data.data()), r.data[2]}];
    const u32 first = wire::get32(&r.data[4]);
    reply.data.resize(8);
    wire::put32(reply.data.data(), static_cast<u32>(found.size()));
    wire::put32(&reply.data[4], first);
    for (std::size_t i = first; i < found.size(); ++i) {
      reply.data.push_back(static_cast<u8>(found[i].size() >> 8));
      reply.data.push_back(static_cast<u8>(found[i].size()));
      reply.data.insert(reply.data.end(), found[i].begin(), found[i].end());
    }
    return reply;
  }
};

using FakeChassisLink = FakeLinkTo<FakeChassis>;

}  // namespace test
