#include "headend/hardware/file_input.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "headend/fail.h"

namespace headend {
namespace {

constexpr u64 kUnitsPerSecond = mpeg::kPcrHz * kUnitsPerTick;
constexpr u64 kPtsUnits = mpeg::kPcrPerPts * kUnitsPerTick;
constexpr u64 kAddedMost = 1000;  // at a seam

// Without payload: it does not count in the PID's continuity.
mpeg::Packet pcrPacket(u16 pid, u8 continuity, u64 ticks) {
  mpeg::Packet packet = mpeg::makePacket(pid, false, continuity);
  packet[3] = static_cast<u8>(0x20 | (packet[3] & 0x0F));
  packet[4] = kTsPacketSize - mpeg::kPacketHeaderSize - 1;
  packet[5] = 0x10;
  packet[10] = 0x7E;  // reserved bits
  mpeg::setPcr(packet, ticks);
  return packet;
}

}  // namespace

FileInput::FileInput(std::string path, std::optional<std::uint64_t> bitRate, Nanos start, Say say)
    : path_(std::move(path)),
      say_(std::move(say)),
      survey_(path_),
      file_(path_),
      ahead_(path_),
      start_(start) {
  if (bitRate) fixed_ = {.packets = *bitRate, .units = mpeg::kPacketBits * kUnitsPerSecond};
  measurePass();
  beginPass();
}

void FileInput::measurePass() {
  const u64 packets = survey_.packets;
  u64 end = 0;
  if (fixed_) {
    end = fixed_->of(packets);
  } else {
    const FileSurvey::Clock* clock = survey_.clock();
    if (clock == nullptr) {
      headend::fail(
          "cannot play {0}: no PID has two PCRs within a second of each other, which would give its pace; "
          "name a rate in bits a second, {0}@RATE",
          path_);
    }
    clockPid_ = clock->pid;
    first_ = clock->firstPace;
    end = first_.of(clock->firstPacket) + clock->span_units +
          clock->pace.pace().of(packets - clock->pace.last()->packet);
  }
  // PCR, PTS and DTS are shifted by the same amount: whole ticks of 90 kHz, rounded up, so that no packet of
  // a pass is later than the first of the next.
  period_ticks_ = (end + kPtsUnits - 1) / kPtsUnits * mpeg::kPcrPerPts;
}

void FileInput::beginPass() {
  file_.rewind();
  ahead_.rewind();
  index_ = 0;
  stamp_ = 0;
  pace_ = PcrPace(first_);
  aheadIndex_ = 0;
  runBegin_ = 0;
  runPlayed_ = 0;
  run_ = {};
  if (fixed_) run_ = {.packets = survey_.packets, .pace = *fixed_};
  schedule();
}

void FileInput::schedule() {
  while (runPlayed_ == run_.packets) nextRun();
  units_ = passBegin_ + runBegin_ + run_.pace.of(runPlayed_);
  const u64 units = added_.empty() ? units_ : std::min(units_, added_.front().units);
  next_ = start_ + static_cast<Nanos>((units + kUnitsPerNano / 2) / kUnitsPerNano);
}

// Reads on to the next PCR that sets the pace.
void FileInput::nextRun() {
  if (run_.packets > 0) runBegin_ += run_.pace.of(run_.packets);
  runPlayed_ = 0;
  while (const u8* packet = ahead_.next()) {
    const u64 index = aheadIndex_++;
    const mpeg::PacketView view(packet, kTsPacketSize);
    if (!mpeg::hasPcr(view) || mpeg::pidOf(view) != clockPid_) continue;
    if (const auto run = pace_.push({.packet = index, .ticks = mpeg::pcrIn(view)})) {
      run_ = *run;
      return;
    }
  }
  run_ = pace_.finish().value_or(PacedRun{.packets = std::numeric_limits<u64>::max(), .pace = pace_.pace()});
}

mpeg::PacketView FileInput::take() {
  if (!added_.empty() && added_.front().units < units_) return takeAdded();
  const u8* packet = file_.next();
  if (packet == nullptr) {
    return fail(file_.failed()
                    ? std::strerror(errno)
                    : fmt::format("it ends after {} packets now and had {}", index_, survey_.packets));
  }
  mpeg::PacketView taken(packet, kTsPacketSize);
  if (pass_ > 0) taken = move(taken);
  if (mpeg::hasPcr(taken)) addPcrs(taken);
  ++runPlayed_;
  if (++index_ < survey_.packets) {
    schedule();
    return taken;
  }
  if (taken.data() != moved_.data()) std::ranges::copy(taken, moved_.begin());  // rewinding reuses its place
  ++pass_;
  passBegin_ += period_ticks_ * kUnitsPerTick;
  shift_ticks_ = (shift_ticks_ + period_ticks_) % mpeg::kPcrWrap;
  beginPass();
  return moved_;
}

mpeg::PacketView FileInput::takeAdded() {
  moved_ = added_.front().packet;
  added_.pop_front();
  schedule();
  return moved_;
}

mpeg::PacketView FileInput::fail(const std::string& why) {
  say_(fmt::format("{} cannot be played any longer: {}; this input is silent from now on", path_, why));
  next_ = kNever;
  moved_ = mpeg::makePacket(kNullPid, false, 0);
  return moved_;
}

mpeg::PacketView FileInput::move(mpeg::PacketView packet) {
  std::ranges::copy(packet, moved_.begin());
  const u16 pid = mpeg::pidOf(packet);
  mpeg::setContinuity(moved_, mpeg::continuityOf(moved_) +
                                  static_cast<unsigned>(pass_ & 0x0F) * survey_.continuitySteps[pid]);
  if (const auto ticks = mpeg::pcrOf(packet)) mpeg::setPcr(moved_, *ticks + shift_ticks_);
  if (mpeg::startsUnit(packet) && !mpeg::isScrambled(packet) && pid != kNullPid) {
    if (const auto times = mpeg::pesTimesOf(packet)) {
      for (unsigned i = 0; i < times->count; ++i) moveTime(times->at + i * mpeg::kPesTimeSize);
    }
  }
  if (!survey_.stamps.empty()) moveStamps();
  return moved_;
}

void FileInput::moveTime(std::size_t at) {
  const auto field = std::span(moved_).subspan(at).first<mpeg::kPesTimeSize>();
  if (const auto time = mpeg::pesTimeOf(field))
    mpeg::setPesTime(field, *time + shift_ticks_ / mpeg::kPcrPerPts);
}

void FileInput::moveStamps() {
  const auto& stamps = survey_.stamps;
  for (; stamp_ < stamps.size() && stamps[stamp_].packet == index_; ++stamp_) {
    const FileSurvey::Stamp& stamp = stamps[stamp_];
    std::array<u8, mpeg::kPesTimeSize> field = stamp.field;
    mpeg::setPesTime(field, *mpeg::pesTimeOf(field) + shift_ticks_ / mpeg::kPcrPerPts);
    std::copy_n(&field[stamp.first], stamp.count, &moved_[stamp.at]);
  }
}

// `last` is the packet taken now, with a PCR. Behind the last one of its PID in a pass the interval to the
// first one of the next pass is divided, if it is too long.
void FileInput::addPcrs(mpeg::PacketView last) {
  const u16 pid = mpeg::pidOf(last);
  const auto found = survey_.clocks.find(pid);
  if (found == survey_.clocks.end() || fixed_ || found->second.firstPace.packets == 0) return;
  const FileSurvey::Clock& clock = found->second;
  if (clock.pace.last()->packet != index_) return;
  const u64 span_ticks = clock.span_units / kUnitsPerTick;
  const u64 longest_ticks = std::max(survey_.longestInterval_ticks(), mpeg::kPcrPerPts);
  if (period_ticks_ <= span_ticks + longest_ticks) return;
  const u64 gap_ticks = period_ticks_ - span_ticks;
  const u64 parts = std::min((gap_ticks + longest_ticks - 1) / longest_ticks, kAddedMost);
  for (u64 i = 1; i < parts; ++i) {
    const u64 later_ticks = gap_ticks * i / parts;
    added_.push_back({.units = units_ + later_ticks * kUnitsPerTick,
                      .packet = pcrPacket(pid, mpeg::continuityOf(last), mpeg::pcrIn(last) + later_ticks)});
  }
  std::ranges::stable_sort(added_, {}, &AddedPcr::units);
}

std::string FileInput::seam() const {
  if (survey_.decoding.empty()) return "";
  const auto step = [this](const auto& entry) {
    const u64 later =
        entry.second.first_pts + period_ticks_ / mpeg::kPcrPerPts + mpeg::kPtsWrap - entry.second.last_pts;
    const auto wrapped = static_cast<std::int64_t>(later % mpeg::kPtsWrap);
    return wrapped > static_cast<std::int64_t>(mpeg::kPtsWrap / 2)
               ? wrapped - static_cast<std::int64_t>(mpeg::kPtsWrap)
               : wrapped;
  };
  const auto [least, most] = std::ranges::minmax_element(survey_.decoding, {}, step);
  return fmt::format("DTS step by {:.3f} ms (PID {:#06x}) to {:.3f} ms (PID {:#06x})",
                     static_cast<double>(step(*least)) / 90, least->first,
                     static_cast<double>(step(*most)) / 90, most->first);
}

}  // namespace headend
