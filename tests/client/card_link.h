// A client's way to a card: to the back end of a headend that runs in this process, from a task of the
// test's. Faults can be laid on every request, each in a copy of the process, so from the same state.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "client/link.h"
#include "client/psi_capture.h"
#include "client/psi_read_back.h"
#include "tests/client/messages.h"
#include "tests/headend/headend_run.h"

namespace test {

enum class Fault { kLost, kUnanswered, kRefused, kMisshapen, kLostFromThere, kUnansweredThenLost };
struct FaultKind {
  Fault fault;
  const char* name;
  bool ofReads, ofWrites;  // where it differs from others
};
inline constexpr FaultKind kFaults[] = {
    {Fault::kLost, "lost", true, true},
    {Fault::kUnanswered, "carried out, the reply lost", false, true},
    {Fault::kRefused, "refused", true, true},
    {Fault::kMisshapen, "the reply misshapen", true, false},
    {Fault::kLostFromThere, "lost like all that follow", true, true},
    {Fault::kUnansweredThenLost, "carried out, the reply lost like all that follow", false, true},
};

class FakeLink final : public client::Link {
 public:
  explicit FakeLink(Headend& headend) : headend_(headend) {}

  // Both number the calls from 0, and may throw: the request or the reply is lost.
  std::function<void(int call, client::Request&)> before{};
  std::function<void(int call, client::Reply&)> after{};
  std::vector<client::Request> log{};  // what was asked, also where it was lost

  client::Reply call(client::Request request) override {
    const int number = calls_++;
    log.push_back(request);
    if (before) before(number, request);
    headend::UdpSocket socket(headend_.network(), kPort);
    request.sequence = ++sequence();
    socket.send({.address = 0, .port = client::kDefaultManagementPort}, client::encode(request));
    const auto datagram = socket.receive(60 * headend_.kernel().settings().tickHz);
    client::Reply reply = client::decodeReply(datagram.value().bytes).value();
    if (after) after(number, reply);
    return reply;
  }
  void wait(std::chrono::milliseconds time) override {
    headend_.kernel().sleepUntil(headend_.kernel().now() + std::chrono::nanoseconds(time).count());
  }

  void lay(Fault fault, int at) {
    before = [=](int call, client::Request& request) {
      if (call == at && fault == Fault::kRefused) request.data.push_back(0);
      if ((call == at && fault == Fault::kLost) || (call >= at && fault == Fault::kLostFromThere) ||
          (call > at && fault == Fault::kUnansweredThenLost)) {
        throw client::LinkError("gone");
      }
    };
    after = [=](int call, client::Reply& reply) {
      if (call != at) return;
      if (fault == Fault::kMisshapen) reply.data.push_back(0);
      if (fault == Fault::kUnanswered || fault == Fault::kUnansweredThenLost) throw client::LinkError("gone");
    };
  }
  int calls() const { return calls_; }

 private:
  static constexpr u16 kPort = 50000;

  // Of all links: the back end tells repetitions by it, and they are one client there.
  static u32& sequence() {
    static u32 last = 0;
    return last;
  }

  Headend& headend_;
  int calls_ = 0;
};

// What a channel has in its store, and its intervals by table.
inline std::vector<client::Section> sectionsOn(client::Link& link, const client::Channel& channel) {
  std::vector<client::Section> all;
  for (const auto& table : client::readBack(link, channel).tables) {
    for (const auto& pid : table.pids) {
      for (client::Section& section : client::gatherSections(pid.packets)) all.push_back(std::move(section));
    }
  }
  return all;
}

inline std::vector<u32> intervalsOn(client::Link& link, const client::Channel& channel) {
  std::vector<u32> ticks;
  for (const auto& table : client::readBack(link, channel).tables) ticks.push_back(table.interval_ticks);
  return ticks;
}

// A chassis with a card in slot 1 and source cards in slots 5 (two inputs) and 6 (sixteen), all with one
// stream, and a link to it.
class CardTest : public testing::Test {
 protected:
  explicit CardTest(const Bytes& stream = readFile(QAM_SAMPLES "/psi-small.ts"))
      : chassis_([&](headend::Options& options) {
          const fs::path file = options.flash.parent_path() / "stream.ts";
          writeFile(file, stream);
          const headend::Options::Input input = {.file = file, .bitRate = 100'000, .address = {}};
          options.sources = {{4, {2, input}}, {5, {16, input}}};
        }) {}

  Scratch scratch_;
  Driven chassis_;
  FakeLink link_{chassis_.headend()};
};

// Runs a history once for each fault at each request that its link is asked for, each time in a copy of this
// process. How often it ended in what way, by the name of the end that it gives.
inline std::map<std::string, int> breakOffEverywhere(
    Headend& headend, const std::function<std::string(FakeLink& link, const std::string& where)>& history) {
  std::map<std::string, int> ends;
  std::vector<bool> writes;  // by request
  for (const auto& [fault, name, ofReads, ofWrites] : kFaults) {
    bool reached = true;
    for (int at = 0; reached; ++at) {
      const auto number = static_cast<std::size_t>(at);
      if (number < writes.size() && !(writes[number] ? ofWrites : ofReads)) continue;
      const std::string where = fmt::format("request {} {}", at, name);
      const std::string end = inChild([&, fault = fault] {
        FakeLink link(headend);
        link.lay(fault, at);
        const std::string itsEnd = history(link, where);
        if (link.calls() <= at) return "whole " + itsEnd;
        return (link.log[number].operation == client::Operation::kWrite ? "write " : "read ") + itsEnd;
      });
      const bool write = end.starts_with("write ");
      reached = write || end.starts_with("read ");
      EXPECT_TRUE(reached || end.starts_with("whole ")) << where << ": " << end;
      if (fault == Fault::kLost) writes.push_back(write);
      EXPECT_FALSE(has(end, "expectations failed")) << where;
      ++ends[end.substr(end.find(' ') + 1)];
    }
  }
  return ends;
}

}  // namespace test
