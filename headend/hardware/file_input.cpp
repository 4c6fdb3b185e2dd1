#include "headend/hardware/file_input.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <span>
#include <stdexcept>
#include <utility>

#include "mpeg/packet_reader.h"

namespace headend {
namespace {

constexpr u64 kUnitsPerSecond = mpeg::kPcrHz * kUnitsPerTick;

// The changes of a packet in further passes.
constexpr u8 kStep = 0x0F;  // added to its continuity counter in each pass
constexpr u8 kPcr = 0x10;
constexpr u8 kStamps = 0x20;

struct Pcr {
  std::size_t packet;
  u64 ticks;
};

// The rate of packets: a number of packets in a number of units.
struct PacketPace {
  u64 packets = 0;
  u64 units = 0;
  u64 of(u64 n) const { return n * (units / packets) + n * (units % packets) / packets; }
};

bool isInterval(const Pcr& from, const Pcr& to) {
  const u64 ticks = mpeg::pcrDistance(from.ticks, to.ticks);
  return ticks > 0 && ticks <= kLongestInterval_ticks;
}

PacketPace paceBetween(const Pcr& from, const Pcr& to) {
  return {.packets = to.packet - from.packet,
          .units = mpeg::pcrDistance(from.ticks, to.ticks) * kUnitsPerTick};
}

// Without single PCRs that are broken between two that fit each other.
std::vector<Pcr> withoutStrays(const std::vector<Pcr>& all) {
  std::vector<Pcr> kept;
  for (std::size_t i = 0; i < all.size(); ++i) {
    const bool between = !kept.empty() && i + 1 < all.size();
    if (between && isInterval(kept.back(), all[i + 1]) &&
        !(isInterval(kept.back(), all[i]) && isInterval(all[i], all[i + 1]))) {
      continue;
    }
    kept.push_back(all[i]);
  }
  return kept;
}

// Of the first PID that has two which follow each other; none if no PID has.
std::vector<Pcr> clockOf(const std::vector<mpeg::Packet>& packets) {
  std::map<u16, std::vector<Pcr>> byPid;
  for (std::size_t i = 0; i < packets.size(); ++i) {
    if (const auto ticks = mpeg::pcrOf(packets[i])) byPid[mpeg::pidOf(packets[i])].push_back({i, *ticks});
  }
  std::vector<Pcr> first;
  for (const auto& [pid, all] : byPid) {
    std::vector<Pcr> pcrs = withoutStrays(all);
    if (std::ranges::adjacent_find(pcrs, isInterval) == pcrs.end()) continue;
    if (first.empty() || pcrs.front().packet < first.front().packet) first = std::move(pcrs);
  }
  return first;
}

// So many packets at one pace.
struct Run {
  u64 packets;
  PacketPace pace;
};

// `pcrs` has two which follow each other.
std::vector<Run> runsOf(const std::vector<Pcr>& pcrs, std::size_t packets) {
  const auto good = std::ranges::adjacent_find(pcrs, isInterval);
  PacketPace pace = paceBetween(good[0], good[1]);
  std::vector<Run> runs = {{pcrs.front().packet, pace}};
  for (std::size_t i = 0; i + 1 < pcrs.size(); ++i) {
    if (isInterval(pcrs[i], pcrs[i + 1])) pace = paceBetween(pcrs[i], pcrs[i + 1]);
    runs.push_back({pcrs[i + 1].packet - pcrs[i].packet, pace});
  }
  runs.push_back({packets - pcrs.back().packet, pace});
  return runs;
}

// The first bytes of a PES packet, with their places.
struct PesHeader {
  static constexpr std::size_t kMost = mpeg::kPesTimesAt + 2 * mpeg::kPesTimeSize;
  struct Place {
    std::uint32_t packet;
    u8 at;
  };
  bool open = false;
  std::size_t size = 0;
  std::array<u8, kMost> bytes{};
  std::array<Place, kMost> places{};

  unsigned times() const { return size < mpeg::kPesTimesAt ? 0 : mpeg::pesTimesIn(bytes); }
  bool complete() const {
    return size >= mpeg::kPesTimesAt && size >= mpeg::kPesTimesAt + times() * mpeg::kPesTimeSize;
  }
};

}  // namespace

FileInput::FileInput(std::string path, std::optional<std::uint64_t> bitRate, Nanos start)
    : path_(std::move(path)), start_(start) {
  read();
  pace(bitRate);
  markPackets();
  findStamps();
  schedule();
}

void FileInput::fail(const std::string& why) const {
  throw std::runtime_error(fmt::format("cannot play {}: {}", path_, why));
}

void FileInput::read() {
  std::error_code error;
  if (std::filesystem::is_directory(path_, error)) fail("it is a folder");
  if (std::filesystem::is_character_file(path_, error)) fail("it is a device, which may have no end");
  std::ifstream stream(path_, std::ios::binary);
  if (!stream) fail(std::strerror(errno));
  if (const auto size = std::filesystem::file_size(path_, error); !error)
    packets_.reserve(size / kTsPacketSize);

  mpeg::PacketReader reader(stream);
  while (const u8* packet = reader.next()) {
    std::copy_n(packet, kTsPacketSize, packets_.emplace_back().begin());
  }
  if (stream.bad()) fail("it could not be read to its end");
  if (packets_.empty()) fail("it holds no transport-stream packets (of 188, 192 or 204 bytes)");
  damage_ = {.syncLosses = reader.losses().size(),
             .leadingBytes = reader.leadingBytes(),
             .trailingBytes = reader.trailingBytes()};
}

void FileInput::pace(std::optional<std::uint64_t> bitRate) {
  std::vector<Run> runs;
  if (bitRate) {
    runs = {{packets_.size(), {.packets = *bitRate, .units = mpeg::kPacketBits * kUnitsPerSecond}}};
  } else {
    const std::vector<Pcr> pcrs = clockOf(packets_);
    if (pcrs.empty()) {
      fail(
          "no PID has two PCRs within a second of each other, which would give its pace; name a rate in bits "
          "a second, " +
          path_ + "@RATE");
    }
    runs = runsOf(pcrs, packets_.size());
  }
  offsets_.reserve(packets_.size());
  u64 end = 0;
  for (const auto& [packets, pace] : runs) {
    for (u64 i = 0; i < packets; ++i) offsets_.push_back(end + pace.of(i));
    end += pace.of(packets);
  }
  // PCR, PTS and DTS are shifted by the same amount: whole ticks of 90 kHz, rounded up, so that no packet of
  // a pass is later than the first of the next.
  constexpr u64 kPtsUnits = mpeg::kPcrPerPts * kUnitsPerTick;
  period_ticks_ = (end + kPtsUnits - 1) / kPtsUnits * mpeg::kPcrPerPts;
}

// The continuity of a PID moves each pass by what its last packet is ahead of the one before the first. A
// packet without payload does not count.
void FileInput::markPackets() {
  std::vector<const mpeg::Packet*> firsts(kPids);
  std::vector<const mpeg::Packet*> lasts(kPids);
  for (const mpeg::Packet& packet : packets_) {
    const u16 pid = mpeg::pidOf(packet);
    if (firsts[pid] == nullptr) firsts[pid] = &packet;
    lasts[pid] = &packet;
  }
  marks_.reserve(packets_.size());
  for (const mpeg::Packet& packet : packets_) {
    const u16 pid = mpeg::pidOf(packet);
    u8 mark = mpeg::hasPcr(packet) ? kPcr : u8{0};
    if (pid != kNullPid) {
      const int step = mpeg::continuityOf(*lasts[pid]) - mpeg::continuityOf(*firsts[pid]) +
                       (mpeg::hasPayload(*firsts[pid]) ? 1 : 0);
      mark = static_cast<u8>(mark | (step & kStep));
    }
    marks_.push_back(mark);
  }
}

void FileInput::findStamps() {
  std::map<u16, PesHeader> headers;
  const auto keep = [this](const PesHeader& header) {
    for (unsigned time = 0; time < header.times(); ++time) {
      const std::size_t begin = mpeg::kPesTimesAt + time * mpeg::kPesTimeSize;
      std::array<u8, mpeg::kPesTimeSize> field{};
      std::copy_n(&header.bytes[begin], mpeg::kPesTimeSize, field.begin());
      if (!mpeg::pesTimeOf(field)) continue;
      for (u8 i = 0; i < mpeg::kPesTimeSize; ++i) {
        const PesHeader::Place& place = header.places[begin + i];
        if (i > 0 && stamps_.back().packet == place.packet) {
          ++stamps_.back().count;
        } else {
          stamps_.push_back({.packet = place.packet, .at = place.at, .first = i, .count = 1, .field = field});
        }
        marks_[place.packet] |= kStamps;
      }
    }
  };
  for (std::uint32_t i = 0; i < packets_.size(); ++i) {
    const mpeg::Packet& packet = packets_[i];
    if (!mpeg::hasPayload(packet) || mpeg::pidOf(packet) == kNullPid) continue;
    PesHeader& header = headers[mpeg::pidOf(packet)];
    if (mpeg::startsUnit(packet)) {
      header.open = true;
      header.size = 0;
    }
    if (mpeg::isScrambled(packet)) header.open = false;
    if (!header.open) continue;
    for (std::size_t at = mpeg::payloadStart(packet); at < kTsPacketSize && !header.complete(); ++at) {
      header.places[header.size] = {.packet = i, .at = static_cast<u8>(at)};
      header.bytes[header.size++] = packet[at];
    }
    if (!header.complete()) continue;
    keep(header);
    header.open = false;
  }
  std::ranges::stable_sort(stamps_, {}, &Stamp::packet);
}

void FileInput::schedule() {
  const u64 units = passBegin_ + offsets_[index_];
  next_ = start_ + static_cast<Nanos>((units + kUnitsPerNano / 2) / kUnitsPerNano);
}

mpeg::PacketView FileInput::take() {
  mpeg::PacketView taken = packets_[index_];
  if (pass_ > 0) {
    moved_ = packets_[index_];
    const u8 mark = marks_[index_];
    mpeg::setContinuity(moved_,
                        mpeg::continuityOf(moved_) + static_cast<unsigned>(pass_ & 0x0F) * (mark & kStep));
    if ((mark & kPcr) != 0) mpeg::setPcr(moved_, *mpeg::pcrOf(moved_) + shift_ticks_);
    if ((mark & kStamps) != 0) moveStamps();
    taken = moved_;
  }
  if (++index_ == packets_.size()) {
    index_ = 0;
    stamp_ = 0;
    ++pass_;
    passBegin_ += period_ticks_ * kUnitsPerTick;
    shift_ticks_ = (shift_ticks_ + period_ticks_) % mpeg::kPcrWrap;
  }
  schedule();
  return taken;
}

void FileInput::moveStamps() {
  for (; stamp_ < stamps_.size() && stamps_[stamp_].packet == index_; ++stamp_) {
    const Stamp& stamp = stamps_[stamp_];
    std::array<u8, mpeg::kPesTimeSize> field = stamp.field;
    mpeg::setPesTime(field, *mpeg::pesTimeOf(field) + shift_ticks_ / mpeg::kPcrPerPts);
    std::copy_n(&field[stamp.first], stamp.count, &moved_[stamp.at]);
  }
}

}  // namespace headend
