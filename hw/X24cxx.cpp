#include "hw/X24cxx.h"

#include <algorithm>

#include "card/QamFpga.h"
#include "hw/i2c_bitbang.h"
#include "platform/chassis.h"
#include "platform/kernel.h"

namespace {

constexpr u16 kSize = 0x800;
constexpr u16 kPage = 16;
constexpr u16 kBlock = 256;
constexpr u8 kDevice = 0xA0;
constexpr u16 kRetries = 5;
constexpr int kAnswerPolls = 100;

constexpr I2cBus kBus{.anyLevelIsHigh = true};

I2cMaster bus(u8 slotNo) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  return {kBus, &window->X24C16SCL, &window->X24C16SDA};
}

u8 deviceOf(u16 addr) {
  return static_cast<u8>(kDevice + addr / kBlock * 2);
}

// The end of a write cycle, which is when the device answers its address again.
void waitForAnswer(u8 device, u8 slotNo) {
  for (int polls = 0; polls < kAnswerPolls; ++polls) {
    chassis::Dog();
    if (bus(slotNo).answers(device)) return;
  }
}

// `i2c_wr` and `i2c_rd` cannot fail with this bus, which does not report a missing acknowledge. The retries
// are kept for a bus that reports it.
void writeChunk(u16 addr, const u8* data, u16 size, u8 slotNo) {
  const u8 device = deviceOf(addr);
  u16 trys = 0;
  while (i2c_wr(device, static_cast<u8>(addr), data, size, slotNo) != 0) {
    chassis::Dog();
    os::sleepMilliseconds(15);
    if (trys >= kRetries) return;
    ++trys;
  }
  waitForAnswer(device, slotNo);
}

void readChunk(u16 addr, u8* data, u16 size, u8 slotNo) {
  u16 trys = 0;
  while (i2c_rd(deviceOf(addr), static_cast<u8>(addr), data, size, slotNo) != 0 && trys < kRetries) ++trys;
}

// Calls `chunk(addr, offset, size)` for the parts of an access that a unit of the device (page or block)
// holds.
template <typename Chunk>
void split(u16 addr, u16 count, u16 unit, const Chunk& chunk) {
  if (addr >= kSize) return;
  if (addr + count >= kSize) count = static_cast<u16>(kSize - addr);
  for (u16 done = 0; done < count;) {
    const u16 at = static_cast<u16>(addr + done);
    const u16 size = std::min<u16>(static_cast<u16>(unit - at % unit), static_cast<u16>(count - done));
    chunk(at, done, size);
    done = static_cast<u16>(done + size);
  }
}

}  // namespace

void at24cxx_wr_byte(u16 addr, u8 data, u8 slotNo) {
  if (addr >= kSize) return;
  writeChunk(addr, &data, 1, slotNo);
}

u8 at24cxx_rd_byte(u16 addr, u8 slotNo) {
  u8 data = 0xFF;
  if (addr < kSize) readChunk(addr, &data, 1, slotNo);
  return data;
}

void at24cxx_wr_page(u8 page_no, const u8* data, u8 slotNo) {
  if (page_no >= kSize / kPage) return;
  writeChunk(static_cast<u16>(page_no * kPage), data, kPage, slotNo);
}

void at24cxx_wr_nbytes(u16 addr, const u8* data, u16 count, u8 slotNo) {
  split(addr, count, kPage, [&](u16 at, u16 offset, u16 size) {
    if (size == kPage) {
      at24cxx_wr_page(static_cast<u8>(at / kPage), data + offset, slotNo);
    } else {
      writeChunk(at, data + offset, size, slotNo);
    }
  });
}

void at24cxx_rd_nbytes(u16 addr, u8* data, u16 count, u8 slotNo) {
  if (addr >= kSize) std::fill_n(data, count, u8{0xFF});
  split(addr, count, kBlock,
        [&](u16 at, u16 offset, u16 size) { readChunk(at, data + offset, size, slotNo); });
}

int i2c_wr(u8 device, u8 address, const u8* data, u16 size, u8 slotNo) {
  bus(slotNo).write(device, address, data, size);
  return 0;
}

int i2c_rd(u8 device, u8 address, u8* data, u16 size, u8 slotNo) {
  bus(slotNo).read(device, address, data, size);
  return 0;
}

void x24c16_start(u8 slotNo) {
  bus(slotNo).start();
}
void x24c16_stop(u8 slotNo) {
  bus(slotNo).stop();
}
void x24c16_sendA(u8 slotNo, u8 device, u8 address) {
  bus(slotNo).startWith(device, address);
}
void x24c16_send(u8 slotNo, u8 byte) {
  bus(slotNo).send(byte);
}
void x24c16_wack(u8 slotNo, u8 wait) {
  bus(slotNo).takeAcknowledge(wait != 0);
}
u8 x24c16_receive(u8 slotNo) {
  return bus(slotNo).receive();
}
void x24c16_ack(u8 slotNo, u8 ack) {
  bus(slotNo).giveAcknowledge(ack == 1);
}
void WSDA_X24C16(u8 slotNo, u8 v) {
  bus(slotNo).setData(v != 0);
}
void WSCL_X24C16(u8 slotNo, u8 v) {
  bus(slotNo).setClock(v != 0);
}
u8 RSDA_X24C16(u8 slotNo) {
  return bus(slotNo).data();
}
u8 RSCL_X24C16(u8 slotNo) {
  return bus(slotNo).clock();
}
