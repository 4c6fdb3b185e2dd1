#include "hw/Qam_fpga_init.h"

#include <cstdio>

#include "platform/chassis.h"
#include "platform/check.h"
#include "platform/files.h"
#include "platform/mainboard.h"
#include "platform/memory.h"

namespace {

constexpr const char* kUnit = "Qam_fpga_init";
constexpr const char* kBitstream = "/tffs0/K717_QAM/qam.bin";
constexpr int kAttempts = 10;
constexpr int kStatusReads = 10001;
constexpr int kBytesPerKick = 4096;  // of the watchdog
constexpr int kClosingClocks = 10;   // after the last bit

void clockPulse(brdFpgaCfg_t& port) {
  port.fpga_dclk = 1;
  port.fpga_dclk = 0;
}

bool waitForStatus(const brdFpgaCfg_t& port, bool ready) {
  for (int reads = 0; reads < kStatusReads; ++reads) {
    if ((port.fpga_stat != 0) == ready) return true;
  }
  return false;
}

// The most significant bit of each byte goes first.
void sendStream(brdFpgaCfg_t& port, const u8* data, int dataSize) {
  for (int i = 0; i < dataSize; ++i) {
    if (i % kBytesPerKick == 0) chassis::Dog();
    for (int bit = 7; bit >= 0; --bit) {
      port.fpga_data = (data[i] >> bit) & 1;
      clockPulse(port);
    }
  }
}

bool attempt(u8 slotNo, brdFpgaCfg_t& port, const u8* data, int dataSize, int confNum) {
  port.config_protect = brdFpgaCfg_t::kGuardOpen;
  port.fpga_dclk = 0;
  port.fpga_ncfg = brdFpgaCfg_t::kStartConfiguration;
  if (port.fpga_ncfg != brdFpgaCfg_t::kStartConfiguration) {
    chassis::DebugPrint("slotNo %d fpgaCfg->fpga_ncfg is not 0x3c5a\r\n", slotNo);
    return false;
  }
  chassis::DebugPrint("fpga_ncfg cfg ok, confNum is %d!\r\n", confNum);
  if (!waitForStatus(port, false)) {
    chassis::DebugPrint("slotNo %d wait for fpgaCfg->fpga_stat too long, it's 1\r\n", slotNo);
    return false;
  }
  port.fpga_ncfg = brdFpgaCfg_t::kReleaseConfiguration;
  if (!waitForStatus(port, true)) {
    chassis::DebugPrint("slotNo %d wait for fpgaCfg->fpga_stat too long, it's 0\r\n", slotNo);
    return false;
  }
  sendStream(port, data, dataSize);
  for (int i = 0; i < kClosingClocks; ++i) clockPulse(port);
  if (port.fpga_done == 0) {
    chassis::DebugPrint("slotNo %d fpgaCfg->fpga_done is 0\r\n", slotNo);
    return false;
  }
  return true;
}

// The bitstream in memory of its own; null when it cannot be had, which has been said then.
u8* readBitstream(std::FILE* file, int& size) {
  std::fseek(file, 0, SEEK_END);
  size = static_cast<int>(std::ftell(file));
  if (size <= 0) {
    chassis::DebugPrint("%s size error %d!\r\n", kBitstream, size);
    return nullptr;
  }
  auto* buffer = static_cast<u8*>(os::malloc(static_cast<std::size_t>(size)));
  if (buffer == nullptr) {
    chassis::DebugPrint("bb fpga config FPGA malloc %d bytes memory failed!\r\n", size);
    return nullptr;
  }
  std::fseek(file, 0, SEEK_SET);
  if (std::fread(buffer, 1, static_cast<std::size_t>(size), file) < static_cast<std::size_t>(size)) {
    chassis::DebugPrint("read %d bytes data from %s error!\r\n", size, kBitstream);
    os::free(buffer);
    return nullptr;
  }
  return buffer;
}

}  // namespace

int QamfpgaInit(u8 slotNo) {
  std::FILE* file = os::fopen(kBitstream, "rb+");
  if (file == nullptr) {
    chassis::DebugPrint("qam fpga can not open %s file!\r\n", kBitstream);
    return 0;
  }
  // Without a bitstream the start-up continues, with an FPGA that is not configured.
  int size = 0;
  const u8* data = readBitstream(file, size);
  if (data == nullptr) {
    std::fclose(file);
    return 0;
  }
  // Buffer and file are kept, one of each per slot start: a debugger can show the data sent to the part.
  return cfg_qam_fpga(slotNo, data, size) == 0 ? 0 : -1;
}

int cfg_qam_fpga(u8 slotNo, const u8* data, int dataSize) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo<MAX_BOARD_NUM", kUnit);
  os::check(data != nullptr, "point", kUnit);
  os::check(dataSize > 0, "dataSize>0", kUnit);

  brdFpgaCfg_t& port = chassis::pbbFpgaIf->fpgaCfg[slotNo];
  for (int confNum = 1; confNum <= kAttempts; ++confNum) {
    if (attempt(slotNo, port, data, dataSize, confNum)) {
      port.config_protect = brdFpgaCfg_t::kGuardClosed;
      return 0;
    }
  }
  port.config_protect = brdFpgaCfg_t::kGuardClosed;
  chassis::DebugPrint("slotNo %d fpgaCfg->config_protect is 0\r\n", slotNo);
  return 1;
}
