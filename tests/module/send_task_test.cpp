// The send task: from a queue's indices to the card's PSI ports.
#include <fmt/format.h>

#include <numeric>

#include "tests/module/chassis.h"
#include "ts/qamIntr.h"

namespace test {
namespace {

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
Lines onThePort(u8 port, Bytes packet, int count) {
  packet[3] = static_cast<u8>(0x90 | (count & 0x0F));
  Lines steps;
  for (const u8 byte : packet) steps.push_back(fmt::format("PsiData{}={}", port, byte));
  steps.resize(204, fmt::format("PsiData{}=65535", port));
  return steps;
}

TEST_F(SendTask, PacketsTakeTheContinuityCountOfTheirPidAndPort) {
  fake.start(2);
  const auto send = [&](u8 port, u16 pid, u8 flags, int first, int end) {
    const Bytes packet = packetOn(pid, flags);
    for (int count = first; count < end; ++count) {
      ASSERT_EQ(fake.stepsOf([&] { qamWritePsi(2, packet.data(), port); }), onThePort(port, packet, count));
    }
  };
  send(0, 0, 0x40, 0, 300);
  send(1, 0, 0x40, 0, 1);
  send(0, 0x1FFF, 0x40, 0, 2);
  send(0, 0x0FFF, 0x40, 0, 1);
  send(0, 0x1FFF, 0xA0, 2, 3);
  send(0, 0, 0x00, 300, 301);
  send(1, 0, 0x40, 1, 2);
}

TEST_F(SendTask, SendsWhatIsQueuedWhenThePortIsReady) {
  QamCardPara& para = *fake.start(2);
  for (const u8 port : {u8{0}, u8{1}}) {
    const Bytes first = packetOn(0x20), last = packetOn(0x21);
    std::copy(first.begin(), first.end(), para.psiPkt[port][0].psiData);
    std::copy(last.begin(), last.end(), para.psiPkt[port][511].psiData);
    fake.onRead = [polls = 0](u32) mutable { return static_cast<u16>(++polls % 4 == 0 ? 0x8000 : 0); };
    fake.queues[port]->messages = {0, 512, 511, 0x10000, 0xFFFFFFFF, 0};
    fake.forget();
    const auto task = fake.tasks[port];
    EXPECT_FALSE(fake.runs([&] { task.entry(task.slotNo, task.port, 0, 0, 0, 0, 0, 0, 0, 0); }));
    const Lines polled(4, fmt::format("PsiRdy{}?", port));
    EXPECT_EQ(fake.steps, polled + onThePort(port, first, 0) + polled + onThePort(port, last, 0) + polled +
                              onThePort(port, first, 1));
  }
  EXPECT_EQ(QamTaskPsiSend(3, 0), -1) << "a slot without a record";
}

}  // namespace
}  // namespace test
