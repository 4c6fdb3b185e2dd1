// A client's way to a card: to the back end of a headend that runs in this process, from a task of the
// test's. Faults can be laid on every request, each in a copy of the process, so from the same state.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "client/link.h"
#include "client/psi_capture.h"
#include "client/psi_read_back.h"
#include "tests/client/messages.h"
#include "tests/headend/headend_run.h"

namespace test {

// What goes wrong with a request.
struct Fault {
  enum class Kind { kLost, kReplyLost, kRefused, kTooLong, kEmpty };
  const char* name;
  Kind kind;
  bool forGood;  // permanently: all following requests are lost too
};
inline constexpr Fault kFaults[] = {
    {"lost", Fault::Kind::kLost, false},
    {"refused", Fault::Kind::kRefused, false},
    {"lost like all that follow", Fault::Kind::kLost, true},
    {"carried out, the reply lost", Fault::Kind::kReplyLost, false},
    {"carried out, the reply lost like all that follow", Fault::Kind::kReplyLost, true},
    {"answered with a byte too many", Fault::Kind::kTooLong, false},
    {"answered without data", Fault::Kind::kEmpty, false},
};

class FakeLink final : public client::Link {
 public:
  explicit FakeLink(Headend& headend, const Fault& fault = {}, int at = -1)
      : headend_(headend), fault_(fault), at_(at) {}

  std::function<void(const protocol::Request&)> before{};
  std::function<void(protocol::Reply&)> after{};
  std::vector<protocol::Request> log{};  // all requests, lost or not

  protocol::Reply call(protocol::Request request) override {
    using Kind = Fault::Kind;
    const bool faulty = std::cmp_equal(log.size(), at_);
    const bool gone = at_ >= 0 && std::cmp_greater(log.size(), at_) && fault_.forGood;
    log.push_back(request);
    if (before) before(request);
    if (gone || (faulty && fault_.kind == Kind::kLost))
      throw client::Error("gone", client::Error::Kind::kNoReply);
    if (faulty && fault_.kind == Kind::kRefused) request.data.push_back(0);
    headend::UdpSocket socket(headend_.network, 50000);
    request.sequence = ++sequence_;
    socket.send({.address = 0, .port = protocol::kDefaultManagementPort}, protocol::encode(request));
    const auto datagram = socket.receive(60 * headend_.kernel.settings().tickHz);
    protocol::Reply reply = protocol::decodeReply(datagram.value().bytes).value();
    if (after) after(reply);
    if (faulty && fault_.kind == Kind::kReplyLost) throw client::Error("gone", client::Error::Kind::kNoReply);
    if (faulty && fault_.kind == Kind::kTooLong) reply.data.push_back(0);
    if (faulty && fault_.kind == Kind::kEmpty) reply.data = base::Bytes();
    return reply;
  }
  void wait(std::chrono::milliseconds time) override {
    headend_.kernel.sleepUntil(headend_.kernel.now() + std::chrono::nanoseconds(time).count());
  }
  bool reached() const { return std::cmp_greater(log.size(), at_); }
  const protocol::Request& broken() const { return log.at(static_cast<std::size_t>(at_)); }

 private:
  inline static u32 sequence_ = 0;  // of all links, which are one client for the back end

  Headend& headend_;
  Fault fault_;
  int at_;
};

inline std::vector<mpeg::Section> sectionsIn(const client::ReadBack& tables) {
  std::vector<mpeg::Section> all;
  for (const auto& table : tables.tables) {
    for (const auto& pid : table.pids) {
      for (mpeg::Section& section : client::gatherSections(pid.packets)) all.push_back(std::move(section));
    }
  }
  return all;
}

inline std::vector<u32> intervalsIn(const client::ReadBack& tables) {
  std::vector<u32> ticks;
  for (const auto& table : tables.tables) ticks.push_back(table.interval_ticks);
  return ticks;
}

// A chassis with a card in slot 1 and source cards in slots 5 (two inputs) and 6 (sixteen), all with one
// stream, and a link to it.
class CardTest : public testing::Test {
 protected:
  static constexpr protocol::Channel kChannel = {0, 1};

  explicit CardTest(const Bytes& stream = readFile(QAM_SAMPLES "/psi-small.ts"))
      : chassis_([&](headend::Options& options) {
          const fs::path file = options.flash.parent_path() / "stream.ts";
          writeFile(file, stream);
          const headend::Options::Input input = {.file = file, .bitRate = 100'000, .address = {}};
          options.sources = {{4, {2, input}}, {5, {16, input}}};
        }) {}

  client::ReadBack tables(const protocol::Channel& channel = kChannel) {
    return client::readBack(link_, channel);
  }

  // Runs a history with each fault at each request of its link from one on, in an empty folder. It returns
  // the name of its result: exactly these names must occur.
  void breakOffEverywhere(const std::set<std::string>& ends,
                          const std::function<std::string(FakeLink& link, const Fault& fault)>& history,
                          int from = 0) {
    std::set<std::string> met;
    for (const Fault& fault : kFaults) {
      std::string end;
      for (int at = from; !has(end, ", whole") && !HasFailure(); ++at) {
        for (const auto& left : fs::directory_iterator(scratch_.path)) fs::remove_all(left);
        end = inChild([&] {
          SCOPED_TRACE(fmt::format("request {} {}", at, fault.name));
          FakeLink link(chassis_.headend(), fault, at);
          const std::string itsEnd = history(link, fault);
          return itsEnd + (link.reached() ? "" : ", whole");
        });
        met.insert(end.substr(0, end.find(", whole")));
        EXPECT_TRUE(std::ranges::includes(ends, met)) << fault.name << ' ' << at << ": " << end;
      }
    }
    EXPECT_EQ(met, ends);
  }

  // In memory: each rescue file is flushed, which takes long on a busy disk.
  Scratch scratch_{fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path()};
  Driven chassis_;
  FakeLink link_{chassis_.headend()};
};

}  // namespace test
