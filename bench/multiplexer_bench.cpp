// What routed packets cost: ten outputs of five cards at 256-QAM and 7000 kBd, filled from ten inputs of one
// source card, with maps of 1, 16 and 256 entries, and a plain copy of the same packets for comparison.
// bench/figures.py shows it; under callgrind, bench/instructions.py counts one case's instructions.
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "headend/hardware/pid_router.h"

namespace {

using headend::Nanos;

constexpr int kOutputs = 10;
constexpr unsigned kMappedPids = 256;
constexpr Nanos kStep = 1'000'000;  // virtual time between two advances of the outputs
const headend::BitRate kRate = headend::BitRate::ofModulation(7000, 8);

// Packets of as many PIDs as the map has entries, in turn, as fast as the output takes them.
class Source final : public headend::TsInput {
 public:
  explicit Source(unsigned pids) {
    for (unsigned i = 0; i < kMappedPids; ++i) {
      auto& packet = packets_[i];
      packet.fill(static_cast<u8>(i));
      packet[0] = 0x47;
      packet[1] = static_cast<u8>(1 + (i % pids >> 8));
      packet[2] = static_cast<u8>(i % pids);
      packet[3] = 0x10;
    }
  }
  Nanos nextArrival() const override {
    return static_cast<Nanos>(static_cast<double>(taken_) * 1e9 * kTsPacketSize * 8 / kRate.perSecond());
  }
  mpeg::PacketView take() override { return mpeg::PacketView(packets_[taken_++ % kMappedPids]); }
  const std::string& name() const override { return name_; }

 private:
  std::array<std::array<u8, kTsPacketSize>, kMappedPids> packets_;
  std::uint64_t taken_ = 0;
  std::string name_ = "bench";
};

// Gathers packets in a block as an output to a file does, and writes none.
class Block final : public headend::PacketSink {
 public:
  void packet(std::span<const u8> packet) override {
    std::memcpy(block_.data() + used_, packet.data(), kTsPacketSize);
    used_ = (used_ + kTsPacketSize) % block_.size();
  }
  void nullPackets(std::uint64_t /*count*/) override {}
  void flush() override {}
  const std::string& error() const override { return error_; }

 private:
  std::vector<u8> block_ = std::vector<u8>(2048 * kTsPacketSize);
  std::size_t used_ = 0;
  std::string error_;
};

headend::PidRouter::Words word(unsigned port, unsigned pid) {
  const std::uint64_t bits =
      (0x100 + pid) | port << 13 | 5U << 17 | 1U << 21 | (std::uint64_t{0x800} + pid) << 22;
  return {static_cast<u16>(bits), static_cast<u16>(bits >> 16), static_cast<u16>(bits >> 32)};
}

// Packets that have left all outputs. Each map has `entries` positions in use.
std::uint64_t route(unsigned entries, Nanos duration) {
  headend::PidRouter router;
  std::array<headend::Multiplexer, kOutputs> outputs;
  std::array<Block, kOutputs> blocks;
  std::vector<std::unique_ptr<Source>> sources;
  for (int i = 0; i < kOutputs; ++i) {
    auto& output = outputs[static_cast<std::size_t>(i)];
    output.setSink(&blocks[static_cast<std::size_t>(i)]);
    output.start(0, kRate);
    router.connectOutput(i / 2, i % 2, output);
    router.connectInput(5, i, *sources.emplace_back(std::make_unique<Source>(entries)));
    for (unsigned entry = 0; entry < entries; ++entry) {
      const auto index = static_cast<u16>(entry);
      router.set(0, i / 2, i % 2, index, word(static_cast<unsigned>(i), index));
    }
  }
  for (Nanos now = 0; now < duration; now += kStep) {
    for (auto& output : outputs) output.advance(now);
  }
  std::uint64_t packets = 0;
  for (const auto& output : outputs) packets += output.counts().routed;
  return packets;
}

std::uint64_t copy(Nanos duration) {
  std::vector<std::unique_ptr<Source>> sources;
  std::array<Block, kOutputs> blocks;
  sources.reserve(kOutputs);
  for (int i = 0; i < kOutputs; ++i) sources.push_back(std::make_unique<Source>(kMappedPids));
  const auto each =
      static_cast<std::uint64_t>(static_cast<double>(duration) / 1e9 * kRate.perSecond() / 8 / kTsPacketSize);
  for (std::uint64_t n = 0; n < each; ++n) {
    for (std::size_t i = 0; i < kOutputs; ++i) blocks[i].packet(sources[i]->take());
  }
  return each * kOutputs;
}

}  // namespace

// A line of JSON: entries of a map (0: the plain copy), virtual seconds, packets, processor seconds. Exit
// code 2 for a wrong call, 1 when the outputs were not full.
int main(int argc, char** argv) {
  const int entries = argc == 3 ? std::atoi(argv[1]) : -1;
  const double seconds = argc == 3 ? std::atof(argv[2]) : 0;
  if (entries < 0 || entries > static_cast<int>(kMappedPids) || !(seconds >= 0.01 && seconds <= 3600)) {
    std::fprintf(stderr,
                 "Usage: multiplexer_bench ENTRIES SECONDS; 0 entries to 256: 0 copies the packets only\n");
    return 2;
  }
  const auto duration = static_cast<Nanos>(seconds * 1e9);
  const std::clock_t start = std::clock();
  const std::uint64_t packets =
      entries == 0 ? copy(duration) : route(static_cast<unsigned>(entries), duration);
  const double took = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
  std::printf("{\"entries\": %d, \"seconds\": %g, \"packets\": %llu, \"processor_seconds\": %g}\n", entries,
              seconds, static_cast<unsigned long long>(packets), took);
  const double full = kOutputs * (seconds - 0.005) * kRate.perSecond() / 8 / kTsPacketSize;
  if (static_cast<double>(packets) >= full) return 0;
  std::fprintf(stderr, "multiplexer_bench: %llu packets are not %g seconds of full outputs\n",
               static_cast<unsigned long long>(packets), seconds);
  return 1;
}
