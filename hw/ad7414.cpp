#include "hw/ad7414.h"

#include "card/QamFpga.h"
#include "hw/Cdce925.h"
#include "hw/i2c_bitbang.h"
#include "platform/chassis.h"
#include "platform/kernel.h"
#include "platform/wire.h"

namespace {

constexpr u8 kDevice = 0x94;
enum Register : u16 { kTemperature = 0, kConfiguration = 1 };
constexpr u8 kPowerDown = 0x80;
constexpr u8 kOneShot = 0x04;
constexpr int kConversionDelays = 100;

constexpr I2cBus kBus{};

I2cMaster bus(u8 slotNo, u8 placeNo) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  switch (placeNo) {
    case 1:
      return {kBus, &window->ad7414_scl, &window->ad7414_sda};
    case 2:
      return {kBus, &window->ext_ad7414_scl, &window->ext_ad7414_sda};
    default:
      return {kBus, nullptr, nullptr};
  }
}

void setConfigurationBits(u8 slotNo, u8 placeNo, u8 bits) {
  u8 configuration = 0;
  ad7414_reg_read(slotNo, &configuration, kConfiguration, 1, placeNo);
  ad7414_reg_write(slotNo, kConfiguration, configuration | bits, placeNo);
}

}  // namespace

void ad7414_init(u8 slotNo, u8 placeNo) {
  WSDA_AD7414(slotNo, 1, placeNo);
  WSCL_AD7414(slotNo, 1, placeNo);
  setConfigurationBits(slotNo, placeNo, kPowerDown);
  delay();
}

u16 get_temper(u8 slotNo, u8 placeNo) {
  os::taskLock();
  setConfigurationBits(slotNo, placeNo, kOneShot);
  for (int i = 0; i < kConversionDelays; ++i) {
    chassis::Dog();
    delay();
  }
  u8 value[2];
  ad7414_reg_read(slotNo, value, kTemperature, sizeof value, placeNo);
  // Ten bits in quarter degrees, rounded down to whole ones. The sign is not extended: -5 reads as 251.
  const u16 degrees = wire::get16(value) >> 6 >> 2;
  os::taskUnlock();
  return degrees;
}

void ad7414_reg_write(u8 slotNo, u16 addr, u8 data, u8 placeNo) {
  bus(slotNo, placeNo).write(kDevice, static_cast<u8>(addr), &data, 1);
}

void ad7414_reg_read(u8 slotNo, u8* dat, u16 addr, u8 size, u8 placeNo) {
  bus(slotNo, placeNo).read(kDevice, static_cast<u8>(addr), dat, size);
}

void ad7414_start(u8 slotNo, u8 placeNo) {
  bus(slotNo, placeNo).start();
}
void ad7414_stop(u8 slotNo, u8 placeNo) {
  bus(slotNo, placeNo).stop();
}
void ad7414_sendA(u8 slotNo, u8 WDevice, u8 Address, u8 placeNo) {
  bus(slotNo, placeNo).startWith(WDevice, Address);
}
void ad7414_send(u8 slotNo, u8 data, u8 placeNo) {
  bus(slotNo, placeNo).send(data);
}
void ad7414_wack(u8 slotNo, u8 i, u8 placeNo) {
  bus(slotNo, placeNo).takeAcknowledge(i != 0);
}
u8 ad7414_receive(u8 slotNo, u8 placeNo) {
  return bus(slotNo, placeNo).receive();
}
void ad7414_ack(u8 slotNo, u8 i, u8 placeNo) {
  bus(slotNo, placeNo).giveAcknowledge(i == 1);
}
void WSCL_AD7414(u8 slotNo, u8 i, u8 placeNo) {
  bus(slotNo, placeNo).setClock(i != 0);
}
void WSDA_AD7414(u8 slotNo, u8 i, u8 placeNo) {
  bus(slotNo, placeNo).setData(i != 0);
}
u8 RSCL_AD7414(u8 slotNo, u8 placeNo) {
  return bus(slotNo, placeNo).clock();
}
u8 RSDA_AD7414(u8 slotNo, u8 placeNo) {
  return bus(slotNo, placeNo).data();
}
