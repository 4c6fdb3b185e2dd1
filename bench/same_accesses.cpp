// Holds the bare loops against the module: on a bus that records, both must make the same accesses, in order,
// with the same values. Otherwise the ratios of instructions.py would compare unlike things. A test.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <utility>
#include <vector>

#include "bench/bare_loops.h"
#include "bench/services.h"
#include "headend/hardware/bitstream.h"
#include "hw/Cdce925.h"
#include "hw/Qam_fpga_init.h"
#include "platform/bus.h"
#include "platform/check.h"
#include "platform/files.h"
#include "platform/memory.h"
#include "ts/qamIntr.h"

namespace {

struct Access {
  const volatile void* reg;
  bool write;
  u16 value;
  bool operator==(const Access&) const = default;
};

// Registers that keep what was written; the status line of the port follows the requests, done is high.
class RecordingBus {
 public:
  explicit RecordingBus(const brdFpgaCfg_t& port) : port_(port) { cells_[&port.fpga_done] = 1; }

  u16 read(const volatile void* reg) {
    const u16 value = cells_[reg];
    accesses_.push_back({reg, false, value});
    return value;
  }
  void write(volatile void* reg, u16 value) {
    cells_[reg] = value;
    if (reg == &port_.fpga_ncfg) cells_[&port_.fpga_stat] = value == brdFpgaCfg_t::kReleaseConfiguration;
    accesses_.push_back({reg, true, value});
  }
  std::vector<Access> take() { return std::exchange(accesses_, {}); }

 private:
  const brdFpgaCfg_t& port_;
  std::map<const volatile void*, u16> cells_;
  std::vector<Access> accesses_;
};

RecordingBus* bus = nullptr;  // the module uses it like any bus

bool same(const char* what, const std::vector<Access>& module, const std::vector<Access>& bare) {
  const auto [m, b] = std::mismatch(module.begin(), module.end(), bare.begin(), bare.end());
  if (!module.empty() && m == module.end() && b == bare.end()) {
    std::printf("%s: %zu accesses, the same\n", what, module.size());
    return true;
  }
  std::fprintf(stderr,
               "%s: the module makes %zu accesses, the bare loop %zu; they differ from number %td on\n", what,
               module.size(), bare.size(), m - module.begin() + 1);
  return false;
}

bool samePackets(bench::Card& card) {
  std::map<int, u8> continuity;
  for (std::size_t i = 0; i < card.packets(); ++i) {
    const u8* stored = card.record().psiPkt[1][i].psiData;
    qamWritePsi(0, stored, 1);
    const std::vector<Access> module = bus->take();

    std::vector<u8> stamped(stored, stored + kTsPacketSize);
    const int pid = (stored[1] & 0x1F) << 8 | stored[2];
    stamped[3] = static_cast<u8>((stored[3] & 0xF0) | (continuity[pid]++ & 0x0F));
    barePsiPacket(card.window().PsiData1, stamped.data());
    if (!same("qamWritePsi", module, bus->take())) return false;
  }
  return card.packets() > 0;
}

bool sameConfiguration(bbFpga_t& mainBoard) {
  chassis::pbbFpgaIf = &mainBoard;
  const std::vector<u8> stream = headend::makeSampleBitstream();
  const int size = static_cast<int>(stream.size());
  if (cfg_qam_fpga(2, stream.data(), size) != 0) {
    std::fprintf(stderr, "cfg_qam_fpga: failed on the recording bus\n");
    return false;
  }
  const std::vector<Access> module = bus->take();
  bareConfiguration(mainBoard.fpgaCfg[2], stream.data(), size);
  return same("cfg_qam_fpga", module, bus->take());
}

bool sameRegisterWrites(bench::Card& card) {
  for (const int data : {0x00, 0x40, 0xB9, 0xFF}) {
    CdceRegWrite(0, 0x1B, static_cast<u8>(data));
    const std::vector<Access> module = bus->take();
    bareClockRegisterWrite(card.window(), 0x1B, static_cast<u8>(data));
    if (!same("CdceRegWrite", module, bus->take())) return false;
  }
  return true;
}

}  // namespace

namespace os {

u16 busRead16(const volatile void* reg) {
  return bus->read(reg);
}
void busWrite16(volatile void* reg, u16 value) {
  bus->write(reg, value);
}
void countingLoop(u32 /*turns*/) {}
void checkFailed(const char* text, const char* unit, int line) {
  std::fprintf(stderr, "%s:%d: %s\n", unit, line, text);
  std::abort();
}
std::FILE* fopen(const char* /*path*/, const char* /*mode*/) {
  return nullptr;
}
void* malloc(std::size_t size) {
  return std::malloc(size);
}
void free(void* block) {
  std::free(block);
}

}  // namespace os

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "Usage: same_accesses CAPTURE.ts\n");
    return 2;
  }
  bbFpga_t mainBoard{};
  RecordingBus recording(mainBoard.fpgaCfg[2]);
  bus = &recording;
  try {
    bench::Card card(argv[1]);
    const bool packets = samePackets(card);
    const bool registerWrites = sameRegisterWrites(card);
    return sameConfiguration(mainBoard) && packets && registerWrites ? 0 : 1;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", argv[1], e.what());
    return 1;
  }
}
