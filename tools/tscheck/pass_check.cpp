// Programmes that were routed into the file from a source that played over and over: that every mapped PID
// came through whole and on time.
#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "checks.h"

namespace tscheck {
namespace {

constexpr int64_t kLongestWait_ticks = kPcrHz / 10;  // in the buffer of an output

// A mapped PID. In the payload the bits of PTS and DTS are 0; their values are in `stamps`, by where they
// were.
struct PidContent : Pid {
  std::map<size_t, int64_t> stamps;
};

// Takes the times out of PES headers. A unit at the end whose header is cut off is dropped.
void takeStamps(PidContent& pid) {
  const auto take = [&](size_t at) {
    uint8_t* b = &pid.payload[at];
    pid.stamps[at] = int64_t{b[0] >> 1 & 7} << 30 | int64_t{b[1]} << 22 | int64_t{b[2] >> 1} << 15 |
                     int64_t{b[3]} << 7 | b[4] >> 1;
    b[0] &= 0xF1;
    b[1] = b[3] = 0;
    b[2] &= 1;
    b[4] &= 1;
  };
  static const std::set<uint8_t> kBare = {0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF};
  for (const size_t at : pid.units) {
    const uint8_t* b = pid.payload.data() + at;
    const size_t left = pid.payload.size() - at;
    if (left >= 3 && (b[0] != 0 || b[1] != 0 || b[2] != 1)) continue;
    if (left < 19) {
      pid.payload.resize(at);
      return;
    }
    if (kBare.contains(b[3]) || (b[6] & 0xC0) != 0x80) continue;
    if ((b[7] & 0x80) != 0) take(at + 9);
    if ((b[7] & 0xC0) == 0xC0) take(at + 14);
  }
}

// Empty when the PID does not occur.
PidContent contentOf(const Scan& scan, uint16_t number) {
  const auto found = scan.pids.find(number);
  if (found == scan.pids.end()) return {};
  PidContent content{found->second, {}};
  takeStamps(content);
  return content;
}

// When each packet of a source is due by the PCRs of the PID whose PCR comes first, in `scale`-ths of a tick.
class SourceClock {
 public:
  SourceClock(const Scan& source, int64_t scale) : scale_(scale) {
    for (const auto& [number, pid] : source.pids)
      if (pid.pcrs.size() > 1 && (pcrs_ == nullptr || pid.pcrs[0].packet < pcrs_->front().packet))
        pcrs_ = &pid.pcrs;
    if (pcrs_ == nullptr) throw std::runtime_error("the source has no PID with two PCRs");
  }

  // The time from that packet's departure to its PCR.
  Wide ahead(uint64_t packet, int64_t ticks) const {
    const auto after = std::upper_bound(pcrs_->begin() + 1, pcrs_->end() - 1, packet,
                                        [](uint64_t value, const Pcr& pcr) { return value < pcr.packet; });
    const Pcr& a = *(after - 1);
    const auto packets = static_cast<int64_t>(after->packet - a.packet);
    const Wide passed = Wide{static_cast<int64_t>(packet - a.packet)} *
                        signedModulo(after->ticks - a.ticks, kPcrWrap) * scale_ / packets;
    return Wide{signedModulo(ticks - a.ticks, kPcrWrap)} * scale_ - passed;
  }

 private:
  const std::vector<Pcr>* pcrs_ = nullptr;
  int64_t scale_;
};

class PassCheck {
 public:
  PassCheck(const Options& options, const Scan& out, Faults& faults)
      : options_(options),
        out_(out),
        source_(readSource(options)),
        faults_(faults),
        clock_(source_, options.rate.num) {}

  Json run() {
    Json streams = Json::object();
    for (const auto& [number, from] : options_.sourceOf)
      streams[fmt::format("{:#x}", number)] = judgePasses(number, from);
    if (const double ns = allAdded_.ns(options_.rate); ns > options_.tolerance_ns)
      faults_.add("added", fmt::format("PCRs of all mapped PIDs together: {:.1f} ns added", ns));
    return streams;
  }

 private:
  static Scan readSource(const Options& options) {
    ScanOptions scanOptions;
    for (const auto& [number, from] : options.sourceOf) scanOptions.payloadPids.insert(from);
    Contents contents;
    Faults ofSource;  // faults of the source, not of the file
    return scan(options.source, scanOptions, contents, ofSource);
  }

  // The output of a mapped PID must be: the end of a pass of the source, whole passes, the start of one.
  Json judgePasses(uint16_t number, uint16_t from) {
    const PidContent out = contentOf(out_, number);
    const PidContent source = contentOf(source_, from);
    const auto fail = [&](const std::string& text) {
      faults_.add("pass", fmt::format("PID {:#x} from {:#x}: {}", number, from, text));
      return Json{{"from", fmt::format("{:#x}", from)}, {"passes", 0}};
    };
    if (source.payload.empty()) return fail("the source has no payload there");
    const auto found =
        std::search(out.payload.begin(), out.payload.end(),
                    std::boyer_moore_horspool_searcher(source.payload.begin(), source.payload.end()));
    if (found == out.payload.end()) return fail("the output contains no whole pass of the source");

    const auto first = static_cast<int64_t>(found - out.payload.begin());
    const auto length = static_cast<int64_t>(source.payload.size());
    const auto sourceAt = [&](size_t at) {
      return static_cast<size_t>(modulo(static_cast<int64_t>(at) - first, length));
    };
    const size_t start = out.units.empty() ? 0 : out.units[0];
    for (size_t at = start; at < out.payload.size(); ++at)
      if (out.payload[at] != source.payload[sourceAt(at)])
        return fail(fmt::format("byte {} of {} differs from the source's byte {}", at, out.payload.size(),
                                sourceAt(at)));

    Json entry = {{"from", fmt::format("{:#x}", from)},
                  {"passes", (static_cast<int64_t>(out.payload.size()) - first) / length}};
    if (const auto unit = std::find(out.units.begin(), out.units.end(), static_cast<size_t>(first));
        unit != out.units.end())
      entry["first_packet"] = out.unitPackets[static_cast<size_t>(unit - out.units.begin())];
    const Shifts shifts = judgeStamps(number, out, source, first);
    if (shifts.size() > 1) entry["period_90khz"] = period_.value_or(0);
    judgeAdded(number, out, source, first, shifts, entry);
    return entry;
  }

  static int64_t passOf(int64_t at, int64_t first, int64_t length) {
    return (at - first - modulo(at - first, length)) / length;
  }

  // All times of a pass are shifted by one amount; each next pass is shifted by the same further amount.
  using Shifts = std::map<int64_t, int64_t>;  // by pass
  Shifts judgeStamps(uint16_t number, const PidContent& out, const PidContent& source, int64_t first) {
    const auto length = static_cast<int64_t>(source.payload.size());
    Shifts shifts;
    const auto fail = [&](const std::string& text) {
      faults_.add("stamp", fmt::format("PID {:#x}: {}", number, text));
    };
    for (const auto& [at, ticks] : out.stamps) {
      const auto was =
          source.stamps.find(static_cast<size_t>(modulo(static_cast<int64_t>(at) - first, length)));
      if (was == source.stamps.end()) continue;
      const int64_t pass = passOf(static_cast<int64_t>(at), first, length);
      const int64_t shift = modulo(ticks - was->second, kPtsWrap);
      if (const auto [entry, isNew] = shifts.emplace(pass, shift); !isNew && entry->second != shift)
        fail(fmt::format("a time is moved by {} in a pass where others are by {}", shift, entry->second));
    }
    for (auto at = shifts.begin(); at != shifts.end() && std::next(at) != shifts.end(); ++at) {
      const int64_t period = modulo(std::next(at)->second - at->second, kPtsWrap);
      if (!period_) period_ = period;
      if (*period_ != period)
        fail(fmt::format("a pass lasts {} ticks of 90 kHz, another {}", period, *period_));
    }
    return shifts;
  }

  void judgeAdded(uint16_t number, const PidContent& out, const PidContent& source, int64_t first,
                  const Shifts& shifts, Json& entry) {
    if (out.pcrs.empty() && source.pcrs.empty()) return;
    const auto length = static_cast<int64_t>(source.payload.size());
    if (out.pcrs.empty() || source.pcrs.empty()) {
      faults_.add("added", fmt::format("PID {:#x}: only one of source and output has PCRs", number));
      return;
    }
    // PCRs of packets without payload are at the same byte whether they end a pass or begin the next. Those
    // that begin one are the last of them.
    const auto opening =
        std::count_if(source.pcrs.begin(), source.pcrs.end(), [](const Pcr& pcr) { return pcr.at == 0; });
    const int64_t before =
        std::count_if(out.pcrs.begin(), out.pcrs.end(),
                      [&](const Pcr& pcr) { return static_cast<int64_t>(pcr.at) <= first; }) -
        opening;
    Spread wait, spread;
    const std::vector<int64_t> ticks = continued(out.pcrs);
    for (size_t i = 0; i < out.pcrs.size(); ++i) {
      const Pcr& pcr = out.pcrs[i];
      const Pcr& was = source.pcrs[static_cast<size_t>(
          modulo(static_cast<int64_t>(i) - before, static_cast<int64_t>(source.pcrs.size())))];
      if (modulo(static_cast<int64_t>(pcr.at) - first - static_cast<int64_t>(was.at), length) != 0) {
        faults_.add(
            "added",
            fmt::format("PID {:#x}: packet {} has a PCR where the source has none, or one was lost before",
                        number, pcr.packet));
        return;
      }
      const Wide added = aheadOfDeparture(options_.rate, pcr, ticks[i]) - clock_.ahead(was.packet, was.ticks);
      spread.add(added);
      // PCRs of different PIDs are counted from different wraps at most.
      if (!base_) base_ = added;
      allAdded_.add(signedModulo(added - *base_, Wide{kPcrWrap} * options_.rate.num));
      const int64_t pass = passOf(static_cast<int64_t>(i), before, static_cast<int64_t>(source.pcrs.size()));
      if (const auto shift = shifts.find(pass); shift != shifts.end())
        wait.add(signedModulo(pcr.ticks - was.ticks - shift->second * kPcrPerPts, kPcrWrap));
    }
    entry["added_error_ns"] = spread.ns(options_.rate);
    if (const double ns = spread.ns(options_.rate); ns > options_.tolerance_ns)
      faults_.add("added", fmt::format("PID {:#x}: up to {:.1f} ns added to PCRs", number, ns));
    if (!wait.low) return;
    entry["wait_ticks"] = {{"min", static_cast<int64_t>(*wait.low)},
                           {"max", static_cast<int64_t>(*wait.high)}};
    if (*wait.low < 0 || *wait.high > kLongestWait_ticks)
      faults_.add("wait",
                  fmt::format("PID {:#x}: PCRs are moved by {} to {} ticks more than the times of their pass",
                              number, static_cast<int64_t>(*wait.low), static_cast<int64_t>(*wait.high)));
  }

  const Options& options_;
  const Scan& out_;
  Scan source_;
  Faults& faults_;
  SourceClock clock_;
  std::optional<Wide> base_;
  Spread allAdded_;
  std::optional<int64_t> period_;
};

}  // namespace

Json checkPasses(const Options& options, const Scan& scan, Faults& faults) {
  return PassCheck(options, scan, faults).run();
}

}  // namespace tscheck
