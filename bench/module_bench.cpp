// Calls one routine of the module, or its bare loop, on a full card, for callgrind to count
// (instructions.py). The module here is the card's own code: a register is a plain volatile cell.
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/bare_loops.h"
#include "bench/services.h"
#include "bench/status_port.h"
#include "headend/hardware/bitstream.h"
#include "hw/Cdce925.h"
#include "hw/Qam_fpga_init.h"
#include "ts/qamIntr.h"
#include "ui/qamStatus.h"

namespace {

constexpr int kTicks = 2000;  // several turns of the whole carousel at the default intervals
constexpr std::size_t kAccessesOfPacket = 204;
constexpr std::size_t kAccessesOfBit = 3;

void demandFull(bench::Card& card) {
  for (std::size_t type = 0; type < PSINUM; ++type) {
    if (card.record().pktNum[0][type] == 0) throw std::runtime_error("the capture lacks a type of table");
  }
  if (card.packets() < kPsiStoreSize - 32) throw std::runtime_error("the capture does not fill the store");
}

// Ticks, with send tasks that keep up: the queues are empty at each.
void ticks(bench::Card& card) {
  demandFull(card);
  std::size_t posted = 0;
  for (int tick = 0; tick < kTicks; ++tick) {
    qamIntr(0);
    for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
      posted += card.queue(port).count;
      card.queue(port).count = 0;
    }
  }
  std::printf("calls %d\nposted %zu\nstored %zu\n", kTicks, posted, card.packets());
}

// The same with every interval 1: each type sends whenever its PID is free.
void busyTicks(bench::Card& card) {
  for (auto& channel : card.record().Interval) {
    for (u16& interval : channel) interval = 1;
  }
  ticks(card);
}

void psiPackets(bench::Card& card) {
  for (std::size_t i = 0; i < card.packets(); ++i) qamWritePsi(0, card.record().psiPkt[0][i].psiData, 0);
  std::printf("calls %zu\naccesses %zu\n", card.packets(), card.packets() * kAccessesOfPacket);
}

void barePsiPackets(bench::Card& card) {
  for (std::size_t i = 0; i < card.packets(); ++i) {
    // The counter value of a packet does not matter for a loop that only copies.
    barePsiPacket(card.window().PsiData0, card.record().psiPkt[0][i].psiData);
  }
  std::printf("calls %zu\naccesses %zu\n", card.packets(), card.packets() * kAccessesOfPacket);
}

void configure() {
  bench::StatusPort status;
  chassis::pbbFpgaIf = status.mainBoard();
  const std::vector<u8> stream = headend::makeSampleBitstream();
  if (cfg_qam_fpga(0, stream.data(), static_cast<int>(stream.size())) != 0) {
    throw std::runtime_error("the configuration failed");
  }
  std::printf("calls 1\naccesses %zu\n", stream.size() * 8 * kAccessesOfBit);
}

void configureBare() {
  bench::StatusPort status;
  const std::vector<u8> stream = headend::makeSampleBitstream();
  bareConfiguration(status.port(), stream.data(), static_cast<int>(stream.size()));
  std::printf("calls 1\naccesses %zu\n", stream.size() * 8 * kAccessesOfBit);
}

constexpr int kRegisterWrites = 100;
constexpr std::size_t kAccessesOfRegisterWrite = 83;  // lines changed; reads of lines are additional

// No device acknowledges: the line is read 200 times after each byte but the last.
void registerWrites(bench::Card& card, bool bare) {
  card.window().cdce925_scl = 1;
  for (int i = 0; i < kRegisterWrites; ++i) {
    const auto data = static_cast<u8>(37 * i);
    if (bare) {
      bareClockRegisterWrite(card.window(), 0x14, data);
    } else {
      CdceRegWrite(0, 0x14, data);
    }
  }
  std::printf("calls %d\naccesses %zu\n", kRegisterWrites, kRegisterWrites * kAccessesOfRegisterWrite);
}

// The longest pass. No sensor acknowledges, so the line is read 200 times after each byte but the last; the
// temperature reads as ones, which is too hot; and both inputs are lost, both outputs overflow.
void statusPasses(bench::Card& card) {
  constexpr int kPasses = 100;
  static bbFpga_t mainBoard{};
  chassis::pbbFpgaIf = &mainBoard;
  mainBoard.rate_overflow = 3;
  card.window().tslock = 3;
  for (int i = 0; i < kPasses; ++i) {
    card.record().qam_para.status = 0;
    qamStatusCheck(0);
  }
  std::printf("calls %d\n", kPasses);
}

void run(const std::string& name, const char* capture) {
  if (name == "configuration") return configure();
  if (name == "bare-configuration") return configureBare();
  bench::Card card(capture);
  if (name == "ticks") return ticks(card);
  if (name == "busy-ticks") return busyTicks(card);
  if (name == "psi-packets") return psiPackets(card);
  if (name == "bare-psi-packets") return barePsiPackets(card);
  if (name == "register-writes") return registerWrites(card, false);
  if (name == "bare-register-writes") return registerWrites(card, true);
  if (name == "status-passes") return statusPasses(card);
  throw std::invalid_argument("there is no case " + name);
}

}  // namespace

// Exit code 1 for a case that went wrong, with a line on stderr; 2 for a wrong call.
int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr,
                 "Usage: module_bench CASE CAPTURE.ts; cases: ticks, busy-ticks, psi-packets, "
                 "bare-psi-packets, configuration, bare-configuration, register-writes, "
                 "bare-register-writes, status-passes\n");
    return 2;
  }
  try {
    run(argv[1], argv[2]);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s of %s: %s\n", argv[1], argv[2], e.what());
    return 1;
  }
}
