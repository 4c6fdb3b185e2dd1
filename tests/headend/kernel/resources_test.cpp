#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdint>

#include "headend/kernel/flash.h"
#include "headend/kernel/heap.h"
#include "headend/kernel/network.h"
#include "tests/headend/kernel/rig.h"
#include "tests/headend/loopback.h"
#include "tests/headend/scratch.h"

namespace {

using namespace test;

TEST(Heap, FillsBlocksKeepsItsLimitAndTakesBack) {
  headend::Heap heap(100, 0xA5);
  auto* block = static_cast<u8*>(heap.allocate(60));
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U);
  EXPECT_TRUE(std::all_of(block, block + 60, [](u8 byte) { return byte == 0xA5; }));
  EXPECT_EQ(heap.allocate(41), nullptr);
  EXPECT_EQ(heap.allocate(SIZE_MAX), nullptr);
  EXPECT_EQ(heap.failures(), 2U);
  void* rest = heap.allocate(40);
  EXPECT_NE(rest, nullptr);
  EXPECT_EQ(heap.used(), 100U);
  heap.release(nullptr);
  heap.release(block);
  EXPECT_EQ(heap.used(), 40U);
  void* again = heap.allocate(60);
  EXPECT_NE(again, nullptr);
  heap.release(again);
  heap.release(rest);
  EXPECT_EQ(heap.used(), 0U);
}

TEST(Flash, HasOneRootAndNothingOutside) {
  const headend::Flash flash("/some/folder");
  const std::pair<const char*, const char*> rows[] = {
      {"/tffs0/para/card1.dat", "/some/folder/para/card1.dat"},
      {"/tffs0/a/../b", "/some/folder/b"},
      {"/tffs0/..b", "/some/folder/..b"},
      {"/tffs0/../b", nullptr},
      {"/tffs0/a/../../b", nullptr},
      {"/tffs0//etc/passwd", nullptr},
      {"/tffs0", nullptr},
      {"/tffs0/", nullptr},
      {"/tffs01/b", nullptr},
      {"/etc/passwd", nullptr},
      {"tffs0/b", nullptr},
      {"", nullptr},
  };
  for (const auto& [path, host] : rows) {
    const auto found = flash.hostPath(path);
    EXPECT_EQ(found ? found->string() : "outside", host != nullptr ? host : "outside") << path;
    if (host == nullptr) {
      EXPECT_EQ(flash.open(path, "rb"), nullptr) << path;
      EXPECT_NE(flash.replace(path, {}), "") << path;
    }
  }
}

TEST(Flash, ReplacesAFileWholeOrLeavesTheOldOne) {
  const Scratch scratch;
  const headend::Flash flash(scratch.path);
  const fs::path file = scratch.path / "para" / "card1.dat";
  const Bytes old(1000, 1);
  const Bytes fresh(200'000, 2);
  EXPECT_EQ(flash.replace("/tffs0/para/card1.dat", old), "");  // makes the folder
  EXPECT_EQ(readFile(file), old);
  EXPECT_EQ(flash.open("/tffs0/para", "rb"), nullptr);

  // A disk that fills up in the middle of the write.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit full{.rlim_cur = 100'000, .rlim_max = before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  const std::string error = flash.replace("/tffs0/para/card1.dat", fresh);
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_NE(error.find("card1.dat"), std::string::npos) << error;
  EXPECT_NE(error.find("File too large"), std::string::npos) << error;
  EXPECT_EQ(readFile(file), old);
  EXPECT_EQ(filesIn(scratch.path), 2U);

  EXPECT_EQ(flash.replace("/tffs0/para/card1.dat", fresh), "");
  EXPECT_EQ(readFile(file), fresh);
  EXPECT_EQ(filesIn(scratch.path), 2U);

  // Names that are taken by a folder, and a folder's by a file.
  fs::create_directory(scratch.path / "folder");
  EXPECT_NE(flash.replace("/tffs0/folder", old), "");
  EXPECT_NE(flash.replace("/tffs0/para/card1.dat/file", old), "");
  EXPECT_EQ(filesIn(scratch.path), 3U);
  EXPECT_EQ(readFile(file), fresh);
}

TEST(Network, SocketsInsideReachEachOtherAndHoldALimitedNumber) {
  Rig rig(freeCalls());
  headend::Network network(rig.kernel);
  headend::UdpSocket server(network, 5000);
  headend::UdpSocket client(network, 5001);
  std::size_t arrivals = 0;
  network.onArrival([&](const headend::UdpSocket& socket, const headend::Datagram&) {
    arrivals += &socket == &server ? 1 : 0;
  });
  rig.task("server", 200, [&] {
    rig.kernel.spend(5 * kMs);
    for (u8 i = 0; i < headend::UdpSocket::kWaitingMost; ++i) {
      const auto datagram = server.receive(os::NO_WAIT);
      ASSERT_TRUE(datagram);
      EXPECT_EQ(datagram->bytes, Bytes({i}));
      EXPECT_EQ(datagram->from, (headend::Endpoint{.address = 0, .port = 5001}));
      EXPECT_EQ(datagram->arrived, 2 * kMs);
    }
    EXPECT_FALSE(server.receive(2));
    EXPECT_EQ(rig.kernel.now(), 20 * kMs);
    server.send({.address = 0, .port = 5001}, {77});
    server.send({.address = 0, .port = 9}, {});  // to nobody
  });
  rig.task("client", 100, [&] {
    rig.kernel.spend(2 * kMs);
    for (u8 i = 0; i < 100; ++i) client.send({.address = 0, .port = 5000}, {i});
    const auto reply = client.receive(10);
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->bytes, Bytes({77}));
    EXPECT_EQ(rig.kernel.now(), 20 * kMs);
    rig.note("done");
  });
  rig.runUntil(kSecond);
  EXPECT_EQ(arrivals, headend::UdpSocket::kWaitingMost);
  EXPECT_EQ(rig.story, Story({"done"}));
}

TEST(Network, AHostSocketServesClientsOfThisMachine) {
  Rig rig(freeCalls());
  headend::Network network(rig.kernel);
  headend::UdpSocket server(network, 5000);
  EXPECT_FALSE(network.hasHostSockets());
  EXPECT_EQ(server.hostAddress(), "off");
  server.openToHost("127.0.0.1", 0);
  EXPECT_TRUE(network.hasHostSockets());
  const std::string address = server.hostAddress();
  EXPECT_EQ(address.find("127.0.0.1:"), 0U);

  headend::UdpSocket second(network, 5001);
  for (const std::string& host : std::initializer_list<std::string>{"127.0.0.1", "no-address", "1.2.3"}) {
    try {
      second.openToHost(host, static_cast<std::uint16_t>(std::stoi(address.substr(10))));
      ADD_FAILURE() << host;
    } catch (const std::runtime_error& e) {
      EXPECT_NE(std::string(e.what()).find(host), std::string::npos) << e.what();
    }
  }

  const Loopback a;
  const Loopback b;
  rig.onTick = [&] { network.pollHost(0); };
  rig.task("server", 100, [&] {
    for (;;) {
      const auto datagram = server.receive(os::WAIT_FOREVER);
      server.send(datagram->from, Bytes(datagram->bytes.rbegin(), datagram->bytes.rend()));
    }
  });
  rig.kernel.at(15 * kMs, [&] { a.send(address, {1, 2, 3}), b.send(address, {}); });
  rig.kernel.at(25 * kMs, [&] {
    EXPECT_EQ(a.receive(), Bytes({3, 2, 1}));
    EXPECT_EQ(b.receive(), Bytes());
    rig.note("answered");
  });
  rig.runUntil(kSecond);
  EXPECT_EQ(rig.story, Story({"answered"}));
}

}  // namespace
