#include "hw/Cdce925.h"

#include "card/QamFpga.h"
#include "hw/i2c_bitbang.h"
#include "platform/chassis.h"
#include "platform/kernel.h"

namespace {

constexpr u8 kDevice = 0xC8;
constexpr u16 kSingleByte = 0x80;  // command bit: the transfer is of one register

// A falling data line gets twice the wait of a rising one. The bits of a sent byte have waits of their own
// and do not check the clock line; all other steps wait for it.
constexpr I2cBus kBus{.slowFall = true, .pacedSend = true};

I2cMaster bus(u8 slotNo) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  return {kBus, &window->cdce925_scl, &window->cdce925_sda};
}

u8 command(u16 addr) {
  return static_cast<u8>(addr + kSingleByte);
}

}  // namespace

void CdceRegWrite(u8 slotNo, u16 addr, u8 data) {
  bus(slotNo).write(kDevice, command(addr), &data, 1);
}

u8 CdceRegRead(u8 slotNo, u16 addr, u8 /*size*/) {
  u8 data = 0;
  bus(slotNo).read(kDevice, command(addr), &data, 1);
  return data;
}

void CdceStart(u8 slotNo) {
  bus(slotNo).start();
}
void CdceStop(u8 slotNo) {
  bus(slotNo).stop();
}
void CdceSendA(u8 slotNo, u8 WDevice, u8 Address) {
  bus(slotNo).startWith(WDevice, Address);
}
void CdceSend(u8 slotNo, u8 data) {
  bus(slotNo).send(data);
}
void CdceWack(u8 slotNo, u8 i) {
  bus(slotNo).takeAcknowledge(i != 0);
}
u8 CdceReceive(u8 slotNo) {
  return bus(slotNo).receive();
}
void CdceAck(u8 slotNo, u8 i) {
  bus(slotNo).giveAcknowledge(i == 1);
}
void WsclCdce(u8 slotNo, u8 i) {
  bus(slotNo).setClock(i != 0);
}
void WsdaCdce(u8 slotNo, u8 i) {
  bus(slotNo).setData(i != 0);
}
u8 RsclCdce(u8 slotNo) {
  return bus(slotNo).clock();
}
u8 RsdaCdce(u8 slotNo) {
  return bus(slotNo).data();
}

void delay() {
  os::countingLoop(1000);
  chassis::Dog();
}
