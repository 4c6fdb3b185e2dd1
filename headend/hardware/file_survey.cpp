#include "headend/hardware/file_survey.h"

#include <algorithm>
#include <bitset>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/progress.h"
#include "headend/fail.h"

namespace headend {
namespace {

constexpr std::size_t kStampsMost = 500'000;

using PesTimeField = std::array<u8, mpeg::kPesTimeSize>;

// The first bytes of a PES packet whose header lies in several packets, with their places.
struct SplitHeader {
  static constexpr std::size_t kMost = mpeg::kPesTimesAt + 2 * mpeg::kPesTimeSize;
  struct Place {
    u64 packet;
    u8 at;
  };
  std::size_t size = 0;
  std::array<u8, kMost> bytes{};
  std::array<Place, kMost> places{};

  unsigned times() const { return size < mpeg::kPesTimesAt ? 0 : mpeg::pesTimesIn(bytes); }
  bool complete() const {
    return size >= mpeg::kPesTimesAt && size >= mpeg::kPesTimesAt + times() * mpeg::kPesTimeSize;
  }
};

// The one pass through the file.
class Surveyor {
 public:
  Surveyor(FileSurvey& survey, const std::string& path) : survey_(survey), path_(path) {}

  void note(mpeg::PacketView packet) {
    const u16 pid = mpeg::pidOf(packet);
    if (pid == kNullPid) {
      if (const auto ticks = mpeg::pcrOf(packet)) noteClock(pid, *ticks);
    } else {
      noteContinuity(pid, packet);
      if (const auto ticks = mpeg::pcrOf(packet)) noteClock(pid, *ticks);
      if (mpeg::hasPayload(packet)) noteUnit(pid, packet);
    }
    ++survey_.packets;
  }

  void finish() {
    std::ranges::stable_sort(survey_.stamps, {}, &FileSurvey::Stamp::packet);
    for (std::size_t pid = 0; pid < kPids; ++pid) {
      if (seen_[pid]) survey_.continuitySteps[pid] = static_cast<u8>((last_[pid] - before_[pid]) & 0x0F);
    }
    for (auto& [pid, clock] : survey_.clocks) {
      if (const auto run = clock.pace.finish()) addRun(clock, *run);
    }
  }

 private:
  // The continuity of a PID moves each pass by what its last packet is ahead of the one before the first. A
  // packet without payload does not count.
  void noteContinuity(u16 pid, mpeg::PacketView packet) {
    last_[pid] = mpeg::continuityOf(packet);
    if (seen_[pid]) return;
    seen_[pid] = true;
    before_[pid] = static_cast<u8>(last_[pid] - (mpeg::hasPayload(packet) ? 1 : 0));
  }

  void noteClock(u16 pid, u64 ticks) {
    const auto [found, isNew] = survey_.clocks.try_emplace(pid);
    FileSurvey::Clock& clock = found->second;
    if (isNew) {
      clock.pid = pid;
      clock.firstPacket = survey_.packets;
    }
    const auto run = clock.pace.push({.packet = survey_.packets, .ticks = ticks});
    if (run && !isNew) addRun(clock, *run);
  }

  static void addRun(FileSurvey::Clock& clock, const PacedRun& run) {
    if (run.pace.packets == 0) {
      clock.unpaced += run.packets;
      return;
    }
    if (clock.firstPace.packets == 0) {
      clock.firstPace = run.pace;
      clock.span_units += run.pace.of(clock.unpaced);
    }
    clock.span_units += run.pace.of(run.packets);
  }

  void noteUnit(u16 pid, mpeg::PacketView packet) {
    if (mpeg::startsUnit(packet)) {
      split_.erase(pid);
      isSplit_[pid] = false;
      if (mpeg::isScrambled(packet)) return;
      if (const auto times = mpeg::pesTimesOf(packet)) return noteTimes(pid, packet, *times);
      isSplit_[pid] = true;
    }
    if (!isSplit_[pid]) return;
    if (mpeg::isScrambled(packet) || gather(split_[pid], pid, packet)) {
      split_.erase(pid);
      isSplit_[pid] = false;
    }
  }

  void noteTimes(u16 pid, mpeg::PacketView packet, const mpeg::PesTimes& times) {
    if (times.count == 0) return;
    PesTimeField field{};  // DTS is the last
    std::copy_n(&packet[times.at + (times.count - 1) * mpeg::kPesTimeSize], field.size(), field.begin());
    noteDecoding(pid, field);
  }

  void noteDecoding(u16 pid, const PesTimeField& field) {
    const auto time = mpeg::pesTimeOf(field);
    if (!time) return;
    survey_.decoding.try_emplace(pid, FileSurvey::Decoding{.first_pts = *time, .last_pts = *time})
        .first->second.last_pts = *time;
  }

  // Whether the header is complete.
  bool gather(SplitHeader& header, u16 pid, mpeg::PacketView packet) {
    for (std::size_t at = mpeg::payloadStart(packet); at < kTsPacketSize && !header.complete(); ++at) {
      header.places[header.size] = {.packet = survey_.packets, .at = static_cast<u8>(at)};
      header.bytes[header.size++] = packet[at];
    }
    if (!header.complete()) return false;
    keep(pid, header);
    return true;
  }

  void keep(u16 pid, const SplitHeader& header) {
    for (unsigned time = 0; time < header.times(); ++time) {
      const std::size_t begin = mpeg::kPesTimesAt + time * mpeg::kPesTimeSize;
      PesTimeField field{};
      std::copy_n(&header.bytes[begin], field.size(), field.begin());
      if (!mpeg::pesTimeOf(field)) continue;
      if (time + 1 == header.times()) noteDecoding(pid, field);
      keepParts(header, begin, field);
    }
  }

  void keepParts(const SplitHeader& header, std::size_t begin, const PesTimeField& field) {
    auto& stamps = survey_.stamps;
    for (std::size_t i = 0; i < field.size(); ++i) {
      const SplitHeader::Place& place = header.places[begin + i];
      if (i > 0 && stamps.back().packet == place.packet) {
        ++stamps.back().count;
        continue;
      }
      if (stamps.size() == kStampsMost)
        fail("cannot play {}: more than {} PTS and DTS of it lie in several packets", path_, kStampsMost);
      stamps.push_back(
          {.packet = place.packet, .at = place.at, .first = static_cast<u8>(i), .count = 1, .field = field});
    }
  }

  FileSurvey& survey_;
  const std::string& path_;
  std::bitset<kPids> seen_;
  std::array<u8, kPids> before_{};  // continuity counter before the first packet
  std::array<u8, kPids> last_{};
  std::bitset<kPids> isSplit_;
  std::map<u16, SplitHeader> split_;
};

}  // namespace

LoopedFile::LoopedFile(const std::string& path) {
  std::error_code error;
  if (std::filesystem::is_directory(path, error)) fail("cannot play {}: it is a folder", path);
  if (std::filesystem::is_character_file(path, error))
    fail("cannot play {}: it is a device, which may have no end", path);
  if (std::filesystem::is_fifo(path, error))
    fail("cannot play {}: it is a pipe, which cannot be read again from its start", path);
  stream_.open(path, std::ios::binary);
  if (!stream_) fail("cannot play {}: {}", path, std::strerror(errno));
  rewind();
}

void LoopedFile::rewind() {
  stream_.clear();
  stream_.seekg(0);
  reader_.emplace(stream_);
}

FileSurvey::FileSurvey(const std::string& path) {
  LoopedFile file(path);
  Surveyor surveyor(*this, path);
  std::error_code error;
  base::ReadingProgress progress("reading " + path, std::filesystem::file_size(path, error));
  while (const u8* packet = file.next()) {
    surveyor.note(mpeg::PacketView(packet, kTsPacketSize));
    progress.at(file.reader().position());
  }
  if (file.failed()) fail("cannot play {}: it could not be read to its end", path);
  if (packets == 0)
    fail("cannot play {}: it holds no transport-stream packets (of 188, 192 or 204 bytes)", path);
  surveyor.finish();
  damage = {.syncLosses = file.reader().lossCount(),
            .leadingBytes = file.reader().leadingBytes(),
            .trailingBytes = file.reader().trailingBytes()};
}

const FileSurvey::Clock* FileSurvey::clock() const {
  const Clock* first = nullptr;
  for (const auto& [pid, clock] : clocks) {
    if (clock.firstPace.packets == 0) continue;
    if (first == nullptr || clock.firstPacket < first->firstPacket) first = &clock;
  }
  return first;
}

u64 FileSurvey::longestInterval_ticks() const {
  u64 longest = 0;
  for (const auto& [pid, clock] : clocks) longest = std::max(longest, clock.pace.longest_ticks());
  return longest;
}

}  // namespace headend
