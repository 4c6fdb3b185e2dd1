// Virtual times of the calibration: what its calls take, and how many requests the service does a virtual
// second for a client inside the chassis. One line for each write cycle of the EEPROM. Times are virtual, so
// every run prints the same, and it is a test: it fails when requests go unserved or the rates leave their
// bounds.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/card_times.h"
#include "card/QamFpga.h"
#include "hw/Qam_set.h"
#include "hw/ad9775.h"
#include "hw/ad9775_ctrl.h"
#include "tests/headend/scratch.h"

namespace bench {
namespace {

using headend::Nanos;
using Packet = std::array<u8, sizeof(AdIpPacket)>;

constexpr std::array kCycles_ms = {0, 5, 10};
constexpr int kRequests = 50;
constexpr int kPatience_ticks = 200;                // for one request; the slowest takes about 26
constexpr Nanos kLongest = 300 * headend::kSecond;  // the whole run takes about 60
constexpr std::uint16_t kServicePort = 49156;
constexpr std::uint16_t kClientPort = 50'000;
enum Command : u8 { kRead = 1, kWrite = 2 };

struct Row {
  int cycle_ms = 0;
  double load_ms = 0;
  double read_ms = 0;
  double write_ms = 0;
  double readsPerSecond = 0;
  double writesPerSecond = 0;
};

double milliseconds(Nanos duration) {
  return static_cast<double>(duration) / 1e6;
}

headend::Options inVirtualTime(const std::filesystem::path& folder) {
  headend::Options options = oneCard(folder);
  options.duration = kLongest;
  options.fast = true;
  return options;
}

class Technician {
 public:
  explicit Technician(const std::filesystem::path& folder) : headend_(inVirtualTime(folder)) {}

  std::vector<Row> measure() {
    std::vector<Row> rows;
    std::string failure;
    // Below the service, so that the client sees only finished requests.
    headend_.kernel.spawn("tBench", kPriority, [&] {
      try {
        rows = work();
      } catch (const std::runtime_error& error) {
        failure = error.what();
      }
      headend_.kernel.stop();
    });
    const std::atomic<bool> interrupted = false;
    const int exitCode = headend::run(headend_, interrupted);
    if (!failure.empty()) throw std::runtime_error(failure);
    if (exitCode != headend::kExitDone || rows.empty()) throw std::runtime_error("the run came to no end");
    if (!headend_.violations.counts().empty()) throw std::runtime_error("a device saw its protocol violated");
    return rows;
  }

 private:
  std::vector<Row> work() {
    while (!headend_.chassis.slot(0).initReturned) headend_.kernel.delay(1);
    Ad9775Ctrl_Init(0);
    client_.emplace(headend_.network, kClientPort);
    std::vector<Row> rows;
    for (const int cycle_ms : kCycles_ms) {
      eeprom().writeCycle(cycle_ms * Nanos{1'000'000});
      Row row{.cycle_ms = cycle_ms};
      row.write_ms = took([this] { handle(newCalibration(), 0); });
      row.read_ms = took([] { handle({kRead, 0}, 1); });
      row.load_ms = took([] { Ad9775Set(0); });
      row.readsPerSecond = perSecond([this] { serveRead(); });
      row.writesPerSecond = perSecond([this] { serveWrite(); });
      rows.push_back(row);
    }
    return rows;
  }

  // Starts on a tick, as after a pause of the service.
  double took(const std::function<void()>& call) {
    headend_.kernel.delay(1);
    const Nanos begin = now();
    call();
    return milliseconds(now() - begin);
  }

  double perSecond(const std::function<void()>& serve) {
    // The first finds the service idle, all others in its pause, which ends on a tick from the second on.
    serve();
    serve();
    const Nanos begin = now();
    for (int i = 0; i < kRequests; ++i) serve();
    return kRequests * 1e3 / milliseconds(now() - begin);
  }

  static void handle(Packet request, int expected) {
    Packet reply{};
    int length = 0;
    if (AdPackHandle(0, request.data(), static_cast<int>(request.size()), reply.data(), &length) != expected)
      throw std::runtime_error(fmt::format("command {} was not done", request[0]));
  }

  void serveRead() {
    send({kRead, 0});
    const auto reply = client_->receive(kPatience_ticks);
    if (!reply) throw std::runtime_error("a read got no reply");
    Packet expected = written_;
    expected[0] = kRead;
    if (!std::equal(expected.begin(), expected.end(), reply->bytes.begin(), reply->bytes.end()))
      throw std::runtime_error("a read got other registers than were written");
  }

  // A write has no reply, so it is done when all its bytes are in the EEPROM.
  void serveWrite() {
    send(newCalibration());
    const Nanos limit = now() + kPatience_ticks * headend::kSecond / headend_.kernel.settings().tickHz;
    while (!isKept()) {
      if (now() > limit) throw std::runtime_error("a write did not reach the EEPROM");
      headend_.kernel.sleepUntil(now() + 1'000'000);
    }
  }

  void send(const Packet& request) {
    client_->send({.address = 0, .port = kServicePort}, {request.begin(), request.end()});
  }

  // All registers different from before.
  const Packet& newCalibration() {
    written_[0] = kWrite;
    for (std::size_t n = 2; n < written_.size(); ++n) written_[n] = static_cast<u8>(written_[n] + n);
    return written_;
  }

  bool isKept() { return std::equal(written_.begin() + 2, written_.end(), eeprom().image(now()).begin()); }

  Nanos now() { return headend_.kernel.now(); }
  headend::Eeprom& eeprom() { return headend_.card(0).board().eeprom; }

  headend::Headend headend_;
  std::optional<headend::UdpSocket> client_;
  Packet written_{};
};

void print(const Row& row) {
  fmt::print(R"({{"write_cycle_ms": {}, "dac_load_ms": {:.3f}, "read_ms": {:.3f}, "write_ms": {:.3f}, )"
             R"("reads_per_second": {:.2f}, "writes_per_second": {:.2f}}})"
             "\n",
             row.cycle_ms, row.load_ms, row.read_ms, row.write_ms, row.readsPerSecond, row.writesPerSecond);
}

// Loose, for they hold the service's pace and not a figure: its pause of 100 ms, and that a write waits for
// its write cycles.
void judge(std::span<const Row> rows) {
  double most = 10;
  for (const Row& row : rows) {
    if (row.readsPerSecond < 9 || row.readsPerSecond > 10.5) {
      throw std::runtime_error(fmt::format("{:.2f} reads a second are not 9 to 10.5", row.readsPerSecond));
    }
    if (row.writesPerSecond < 3 || row.writesPerSecond >= most) {
      throw std::runtime_error(
          fmt::format("{:.2f} writes a second, with write cycles of {} ms, are not 3 to {:.2f}",
                      row.writesPerSecond, row.cycle_ms, most));
    }
    most = row.writesPerSecond;
  }
}

}  // namespace

void calibrationTimes() {
  const test::Scratch scratch;
  const std::vector<Row> rows = Technician(scratch.path).measure();
  for (const Row& row : rows) print(row);
  judge(rows);
}

}  // namespace bench
