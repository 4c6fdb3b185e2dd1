// A client's way to a card: to the back end of a headend that runs in this process, from a task of the
// test's. Faults can be laid on every request, each in a copy of the process, so from the same state.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "client/carry_out.h"
#include "client/channel_change.h"
#include "client/link.h"
#include "client/pid_map.h"
#include "tests/client/messages.h"
#include "tests/headend/headend_run.h"

namespace test {

// What goes wrong with a request.
inline constexpr std::string_view kFaults[] = {
    "lost",    "lost with all later ones", "reply lost",   "reply lost with all later ones",
    "refused", "malformed reply",          "second client"};

class FakeLink final : public client::Link {
 public:
  explicit FakeLink(Headend& headend, std::string_view fault = "", int at = -1)
      : headend_(headend), fault_(fault), at_(at) {}

  std::function<void(protocol::Reply&)> after{};
  std::function<void()> secondClient{};
  std::vector<protocol::Request> log{};  // all requests, lost or not

  protocol::Reply exchange(protocol::Request request) override {
    const std::string_view fault = std::cmp_equal(log.size(), at_) ? fault_ : "";
    const bool gone = fault_.ends_with("all later ones") && std::cmp_greater(log.size(), at_);
    log.push_back(request);
    if (fault == "second client") secondClient();
    if (gone || fault.starts_with("lost")) throw client::Error("gone", client::Error::Kind::kNoReply);
    if (fault == "refused") request.data.push_back(0);
    headend::UdpSocket socket(headend_.network, 50000);
    request.sequence = ++sequence_;
    socket.send({.address = 0, .port = protocol::kDefaultManagementPort}, protocol::encode(request));
    const auto datagram = socket.receive(60 * headend_.kernel.settings().tickHz);
    protocol::Reply reply = protocol::decodeReply(datagram.value().bytes).value();
    if (after) after(reply);
    if (fault.starts_with("reply lost")) throw client::Error("gone", client::Error::Kind::kNoReply);
    if (fault == "malformed reply") reply.data.push_back(0);
    return reply;
  }
  void wait(std::chrono::milliseconds time) override {
    headend_.kernel.sleepUntil(headend_.kernel.now() + std::chrono::nanoseconds(time).count());
  }
  bool reached() const { return std::cmp_greater(log.size(), at_); }
  bool brokeLast() const { return std::cmp_equal(log.size(), at_ + 1); }

 private:
  inline static u32 sequence_ = 0;  // of all links, which are one client for the back end

  Headend& headend_;
  std::string_view fault_;
  int at_;
};

inline std::vector<mpeg::Section> sectionsIn(const client::PsiStore& psi) {
  std::vector<mpeg::Section> all;
  for (const PsiType type : mpeg::kAllTables)
    std::ranges::move(client::sectionsOf(psi.readable(), type), std::back_inserter(all));
  return all;
}

inline std::vector<u32> intervalsIn(const client::PsiStore& psi) {
  std::vector<u32> ticks;
  for (const auto& table : psi.tables) ticks.push_back(table.interval_ticks);
  return ticks;
}

// Sources and PIDs of their own, highest source first, so that the card has to sort.
inline std::vector<protocol::MapEntry> mapOf(std::size_t size, u16 pid) {
  std::vector<protocol::MapEntry> entries;
  for (auto n = static_cast<u16>(size); n > 0; --n) {
    const bool odd = n % 2 != 0;
    entries.push_back({odd ? u16{4} : u16{5}, odd ? 1u : n % 16u, static_cast<u16>(pid + n), n,
                       static_cast<u16>(0x1E00 - pid - n), 7, static_cast<u16>(n & 0xFF)});
  }
  return entries;
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

  client::PsiStore tables(const protocol::Channel& channel = kChannel) {
    return client::readPsi(link_, channel);
  }
  void load(const std::vector<mpeg::Section>& sections, const protocol::Intervals& intervals = {},
            const protocol::Channel& channel = kChannel, bool force = false) {
    client::carryOut(
        link_, client::planLoad(link_, channel, client::packTables(sections), intervals, {.force = force}));
  }
  void loadMap(const std::vector<protocol::MapEntry>& entries) {
    client::carryOut(link_, client::planMap(link_, kChannel, entries));
  }

  // In memory: each rescue file is flushed, which takes long on a busy disk.
  Scratch scratch_{fs::is_directory("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path()};
  Driven chassis_;
  FakeLink link_{chassis_.headend()};
};

}  // namespace test
