// The send task: from a queue's indices to the card's PSI ports.
#include <fmt/format.h>

#include <numeric>

#include "tests/module/chassis.h"
#include "ts/qamIntr.h"

namespace test {
namespace {

constexpr u32 kWindow = kWindows + 0x400;  // slot 2
constexpr u32 kPorts[2] = {kWindow + 156, kWindow + 172};
constexpr u32 kReady[2] = {kWindow + 158, kWindow + 174};

using SendTask = ModuleTest;

// 188 bytes of which no two neighbours agree, on the PID.
Bytes packetOn(u16 pid, u8 flags = 0x40) {
  Bytes packet(188);
  std::iota(packet.begin(), packet.end(), u8{0x47});
  packet[1] = static_cast<u8>(flags | pid >> 8);
  packet[2] = static_cast<u8>(pid);
  packet[3] = 0x9E;
  return packet;
}

// The port's accesses for a packet that goes out with this count.
std::vector<Access> onThePort(u8 port, Bytes packet, int count) {
  packet[3] = static_cast<u8>(0x90 | (count & 0x0F));
  std::vector<Access> accesses;
  for (const u8 byte : packet) accesses.push_back({'w', kPorts[port], byte});
  accesses.resize(204, {'w', kPorts[port], 0xFFFF});
  return accesses;
}

TEST_F(SendTask, PacketsTakeTheContinuityCountOfTheirPidAndPort) {
  fake.start(2);
  struct Row {
    u8 port, flags;
    u16 pid;
    int repeat, firstCount;
  };
  const Row rows[] = {{0, 0x40, 0, 3, 0},      {1, 0x40, 0, 1, 0},      {0, 0x40, 0x11, 1, 0},
                      {0, 0x40, 0x1FFF, 2, 0}, {0, 0x40, 0x0FFF, 1, 0}, {0, 0xA0, 0x1FFF, 1, 2},
                      {0, 0x40, 0, 300, 3},    {0, 0x40, 0, 1, 303},    {1, 0x40, 0, 1, 1},
                      {0, 0x00, 0x11, 1, 1}};
  for (const Row& row : rows) {
    SCOPED_TRACE(fmt::format("PID {:#x} on port {} from {}", row.pid, row.port, row.firstCount));
    const Bytes packet = packetOn(row.pid, row.flags);
    for (int count = row.firstCount; count < row.firstCount + row.repeat; ++count) {
      fake.accesses.clear();
      qamWritePsi(2, packet.data(), row.port);
      ASSERT_EQ(fake.accesses, onThePort(row.port, packet, count));
    }
  }
}

TEST_F(SendTask, SendsWhatIsQueuedWhenThePortIsReady) {
  QamCardPara& para = *fake.start(2);
  for (const u8 port : {u8{0}, u8{1}}) {
    SCOPED_TRACE(int{port});
    const Bytes first = packetOn(0x20), last = packetOn(0x21);
    std::copy(first.begin(), first.end(), para.psiPkt[port][0].psiData);
    std::copy(last.begin(), last.end(), para.psiPkt[port][511].psiData);
    int polls = 0;
    fake.onRead = [&polls](u32) { return static_cast<u16>(++polls % 4 == 0 ? 0x8000 : 0); };
    fake.queues[port]->messages = {0, 512, 511, 0x10000, 0xFFFFFFFF, 0};
    fake.accesses.clear();
    const Task task = fake.tasks[port];
    EXPECT_FALSE(fake.runs([&] { task.entry(task.slotNo, task.port, 0, 0, 0, 0, 0, 0, 0, 0); }));

    std::vector<Access> expected;
    for (const auto& [packet, count] : {std::pair{&first, 0}, {&last, 0}, {&first, 1}}) {
      expected.insert(expected.end(), 3, {'r', kReady[port], 0});
      expected.push_back({'r', kReady[port], 0x8000});
      for (const Access& access : onThePort(port, *packet, count)) expected.push_back(access);
    }
    EXPECT_EQ(fake.accesses, expected);
  }
  EXPECT_EQ(QamTaskPsiSend(3, 0), -1) << "a slot without a record";
}

}  // namespace
}  // namespace test
