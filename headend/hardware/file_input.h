// A transport stream from a file, played between its own PCRs in a loop. The file is read while it plays, so
// its length does not matter. Created by the code that adds a source card; read by the router.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

#include "headend/hardware/file_survey.h"
#include "headend/hardware/ts_input.h"
#include "mpeg/packet.h"

namespace headend {

// The first pass plays the file's bytes. In each later pass, PCR, PTS and DTS of all PIDs are shifted by the
// duration of a pass, and each PID's continuity counter continues. The PID with the first usable PCRs sets
// the pace: a packet with a PCR arrives at that PCR's time, the packets between at equal intervals.
//
// Between the last PCR of a pass and the first of the next, packets with a PCR and without payload are added
// where the interval would exceed the file's longest.
class FileInput final : public TsInput {
 public:
  using Say = std::function<void(const std::string&)>;

  // Plays from `start` on, at the given rate in bits per second of 188-byte packets, from kSlowest to
  // kFastest, or by the PCRs if there is no rate. Throws std::runtime_error with the missing item if the file
  // cannot be used. If the file changes or cannot be read while it plays, `say` receives the reason, and no
  // further packet arrives.
  explicit FileInput(
      std::string path, std::optional<std::uint64_t> bitRate = std::nullopt, Nanos start = 0,
      Say say = [](const std::string& /*text*/) {});

  Nanos nextArrival() const override { return next_; }
  mpeg::PacketView take() override;
  const std::string& name() const override { return path_; }

  std::uint64_t period_ticks() const { return period_ticks_; }  // of one pass; 27 MHz, a multiple of 300
  const FileSurvey& survey() const { return survey_; }
  // "DTS ...", what the cut between the end of the file and its start does to times; empty without any.
  std::string seam() const;

  static constexpr std::uint64_t kSlowest = 1'000;  // bits per second
  static constexpr std::uint64_t kFastest = 1'000'000'000;

 private:
  // Added at the seam.
  struct AddedPcr {
    u64 units;  // from the start
    mpeg::Packet packet;
  };

  void measurePass();
  void beginPass();
  void schedule();
  void nextRun();
  mpeg::PacketView takeAdded();
  mpeg::PacketView fail(const std::string& why);
  mpeg::PacketView move(mpeg::PacketView packet);
  void moveTime(std::size_t at);
  void moveStamps();
  void addPcrs(mpeg::PacketView last);

  std::string path_;
  Say say_;
  FileSurvey survey_;
  LoopedFile file_;
  LoopedFile ahead_;  // read up to the next PCR that sets the pace
  std::optional<PacketPace> fixed_;
  u16 clockPid_ = 0;
  PacketPace first_;
  std::uint64_t period_ticks_ = 0;

  Nanos start_;
  std::uint64_t pass_ = 0;
  std::uint64_t passBegin_ = 0;    // in units of 1/27 ns from `start_`, as all below
  std::uint64_t shift_ticks_ = 0;  // offset of this pass, below mpeg::kPcrWrap
  std::uint64_t index_ = 0;        // of the next packet in the pass
  std::size_t stamp_ = 0;          // the next one
  PcrPace pace_;
  std::uint64_t aheadIndex_ = 0;
  PacedRun run_;
  std::uint64_t runBegin_ = 0;  // from the start of the pass
  std::uint64_t runPlayed_ = 0;
  std::uint64_t units_ = 0;  // when the next packet of the file arrives
  std::deque<AddedPcr> added_;
  Nanos next_ = 0;
  mpeg::Packet moved_{};
};

}  // namespace headend
