// The way to a fake card, on which faults can be laid.
#pragma once

#include <chrono>
#include <functional>

#include "client/link.h"

namespace test {

// Numbers the calls from 0. `card` answers with `handle`.
template <typename Card>
class FakeLinkTo : public client::Link {
 public:
  explicit FakeLinkTo(Card& fakeCard) : card(fakeCard) {}

  Card& card;
  int calls = 0;
  std::function<void(int call, client::Request&)> before;  // may throw: the request is lost
  std::function<void(int call, client::Reply&)> after;     // may throw: the reply is lost

  client::Reply call(client::Request request) override {
    const int number = calls++;
    if (before) before(number, request);
    client::Reply reply = card.handle(request);
    if (after) after(number, reply);
    return reply;
  }
  void wait(std::chrono::milliseconds /*time*/) override {}
};

}  // namespace test
