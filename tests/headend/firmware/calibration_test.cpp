// A calibration over the network, into the DAC and its EEPROM, through power cuts and whatever else comes.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <random>

#include "card/QamFpga.h"
#include "hw/Qam_set.h"
#include "hw/ad9775.h"
#include "hw/ad9775_ctrl.h"
#include "tests/headend/headend_run.h"

namespace test {
namespace {

using Registers = std::array<u8, kDacRegisters>;

Registers randomRegisters(std::mt19937& random) {
  Registers registers;
  for (u8& value : registers) value = static_cast<u8>(random());
  return registers;
}

Bytes request(u8 command, u8 slot, const Registers& registers = {}) {
  Bytes bytes(2 + registers.size());
  bytes[0] = command;
  bytes[1] = slot;
  std::copy(registers.begin(), registers.end(), bytes.begin() + 2);
  return bytes;
}

Registers dacOf(headend::CardBoard& board) {
  Registers registers;
  for (u8 n = 0; n < kDacRegisters; ++n) registers[n] = board.dac().reg(n);
  return registers;
}

// The technician's view of the card.
class Bench : public Driven {
 public:
  using Driven::Driven;
  static void write(const Registers& registers) {
    Bytes packet = request(2, 0, registers);
    EXPECT_EQ(AdPackHandle(0, packet.data(), static_cast<int>(packet.size()), nullptr, nullptr), 0);
  }
  static Registers read() {
    Bytes packet = request(1, 0);
    std::array<u8, 100> reply{};
    int length = 0;
    EXPECT_EQ(AdPackHandle(0, packet.data(), 2, reply.data(), &length), 1);
    Registers registers;
    std::copy_n(reply.begin() + 2, registers.size(), registers.begin());
    return registers;
  }
  Registers kept() {
    Registers registers;
    std::copy_n(board().eeprom().image(now()).begin(), registers.size(), registers.begin());
    return registers;
  }
};

class WriteCycle : public ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Ms, WriteCycle, ::testing::Values(0, 10));

// The power is cut as soon as the service is done; the start-up's loading of the DAC follows.
TEST_P(WriteCycle, LosesNoByte) {
  Bench bench;
  bench.drive([&] {
    for (const u8 value : Bench::read()) EXPECT_EQ(value, 255) << "blank";
    bench.board().eeprom().writeCycle(GetParam() * 1'000'000);
    std::mt19937 random(7);
    for (int i = 0; i < 150; ++i) {
      const Registers wanted = randomRegisters(random);
      Bench::write(wanted);
      ASSERT_EQ(Bench::read(), wanted) << i;
      bench.board().eeprom().powerCut(bench.now());
      Ad9775Init(0);
      ASSERT_EQ(Bench::read(), wanted) << i;
      ASSERT_EQ(dacOf(bench.board()), wanted) << i;
    }
  });
}

// Every edge of one calibration write is a point at which the power may go; each is a history of its own,
// forked from here. A short slice of them without QAM_LONG; QAM_POWER_CUT=EDGE repeats one.
TEST(PowerCut, LeavesEveryByteOldOrNewButTheOneInItsCycle) {
  const bool all = std::getenv("QAM_LONG") != nullptr;
  const char* single = std::getenv("QAM_POWER_CUT");
  std::mt19937 random(11);
  const Registers before = randomRegisters(random);
  const Registers after = randomRegisters(random);
  Bench bench;
  std::uint64_t points = 0;
  std::uint64_t tried = 0;
  int undefined = 0;
  bench.drive([&] {
    Bench::write(before);
    const std::uint64_t first = bench.board().calibrationEdges() + 1;
    const std::string edges = inChild([&] {
      Bench::write(after);
      return std::to_string(bench.board().calibrationEdges() - first + 1);
    });
    points = std::stoull(edges);
    const std::uint64_t step = all ? 1 : 41;
    for (std::uint64_t point = single != nullptr ? std::stoull(single) : 1; point <= points; point += step) {
      ++tried;
      const std::string found = inChild([&] {
        Registers left{};
        bool inCycle = false;
        bench.board().atEdge(first + point - 1, [&] {
          inCycle = bench.board().eeprom().busy(bench.now());
          bench.board().cutPower(bench.now());
          left = bench.kept();
        });
        Bench::write(after);
        std::size_t n = 0;
        while (n < left.size() && left[n] == after[n]) ++n;
        const std::size_t cut = n;  // from here on old, but for one that may be anything
        const bool isOld = cut == left.size() || left[cut] == before[cut];
        for (n = cut + 1; n < left.size(); ++n) {
          if (left[n] != before[n]) return fmt::format("byte {} is {:02X}", n, left[n]);
        }
        const headend::Eeprom::Image& image = bench.board().eeprom().image(bench.now());
        if (std::any_of(image.begin() + kDacRegisters, image.end(), [](u8 value) { return value != 0xFF; })) {
          return std::string("a byte beyond the calibration has changed");
        }
        if (!isOld && !inCycle) return fmt::format("byte {} is garbage, and was not being written", cut);
        return std::string(isOld ? "" : "undefined");
      });
      undefined += found == "undefined" ? 1 : 0;
      EXPECT_TRUE(found.empty() || found == "undefined")
          << found << "; again: QAM_POWER_CUT=" << point << " headend_tests --gtest_filter='PowerCut.*'";
      if (single != nullptr) break;
    }
  });
  fmt::print("{} points of one calibration write, {} tried, {} left the byte in its cycle undefined\n",
             points, tried, undefined);
  EXPECT_GT(points, 2000U);
  EXPECT_TRUE(single != nullptr || undefined > 0) << "no cut has met a write cycle";
}

// ---- The service ----

// A client inside the chassis; the service stands at its port.
class Client {
 public:
  explicit Client(Bench& bench) : bench_(bench), socket_(bench.headend().network(), 50'000) {
    Ad9775Ctrl_Init(0);
  }
  std::optional<Bytes> call(const Bytes& bytes, int ticks) {
    socket_.send({.address = 0, .port = 49156}, bytes);
    const auto reply = socket_.receive(ticks);
    bench_.headend().kernel().delay(ticks);  // the service's pause
    if (!reply) return {};
    return reply->bytes;
  }

 private:
  Bench& bench_;
  headend::UdpSocket socket_;
};

TEST(Service, OutlivesAnyDatagramAndObeysOnlyRequests) {
  Bench bench;
  bench.drive([&] {
    Client client(bench);
    std::mt19937 random(3);
    Registers expected = bench.kept();
    for (int i = 0; i < 2000; ++i) {
      Bytes datagram(random() % 101);
      for (u8& byte : datagram) byte = static_cast<u8>(random());
      if (!datagram.empty() && random() % 2 == 0) datagram[0] = static_cast<u8>(random() % 4);
      if (datagram.size() > 1 && random() % 2 == 0) datagram[1] = static_cast<u8>(random() % 8);
      const bool isMine = datagram.size() < 2 || datagram[1] == 0;
      const bool isRead = isMine && !datagram.empty() && datagram[0] == 1;
      const bool isWrite = isMine && !datagram.empty() && datagram[0] == 2;
      if (isWrite) {
        Bytes whole = datagram;
        whole.resize(100);
        std::copy_n(whole.begin() + 2, expected.size(), expected.begin());
      }
      const auto reply = client.call(datagram, isWrite ? 40 : 15);
      ASSERT_EQ(reply.value_or(Bytes{}), isRead ? request(1, 0, expected) : Bytes{}) << i;
      if (i % 100 == 0 || isWrite) {
        ASSERT_EQ(bench.kept(), expected) << i;
        ASSERT_EQ(dacOf(bench.board()), expected) << i;
      }
    }
  });
}

TEST(Service, AWriteToAnEepromThatIsAbsentEndsWithinASecond) {
  Bench bench([](headend::Options& options) {
    options.faults.push_back({.slot = 0, .name = "eeprom-absent", .at = 0});
  });
  bench.drive([&] {
    std::mt19937 random(5);
    const Registers wanted = randomRegisters(random);
    const Nanos begin = bench.now();
    Bench::write(wanted);
    EXPECT_LT(bench.now() - begin, kSecond);
    EXPECT_EQ(Bench::read(), wanted) << "the DAC has it all the same";
  });
}

// The service asks no lock: a request that comes while a start-up loads the DAC moves the same lines in
// between. Transfers may be lost, and the devices see it; the card runs all the same.
TEST(Service, ARequestDuringAStartUpMayBreakIntoItsTransfers) {
  int broken = 0;
  for (int step = 0; step < 12; ++step) {
    const std::string story = inChild([&] {
      const Scratch scratch;
      headend::initFlash(scratch.path / "flash");
      Headend headend(fastOptions(scratch.path, 2 * kSecond));
      const auto sleep = [&](Nanos time) { headend.kernel().sleepUntil(headend.kernel().now() + time); };
      headend.kernel().spawn("tTest", 235, [&] {
        while (QamFpgaIf[0] == nullptr) sleep(1'000'000);  // there some time before the DAC is loaded
        while (headend.card(0).board().calibrationEdges() < 100) sleep(100'000);
        sleep(1'000'000 * step);
        Bench::write({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13});
      });
      run(headend);
      EXPECT_EQ(headend.state(0), Headend::CardState::kRunning);
      return std::string(headend.violations().counts().empty() ? "whole" : "broken");
    });
    broken += story == "broken" ? 1 : 0;
    EXPECT_TRUE(story == "whole" || story == "broken") << story;
  }
  EXPECT_GE(broken, 1) << "none came at the wrong moment, so this shows nothing";
}

}  // namespace
}  // namespace test
