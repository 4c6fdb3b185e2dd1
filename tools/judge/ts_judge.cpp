// ts_judge: is a transport stream sound, and did what was routed into it from a source come through whole and
// on time? An independent judge for the end-to-end tests: it shares no code with the programs whose output it
// reads. Exit code 0: nothing wrong; 1: faults, each named; 2: wrong call.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

#include "program.h"
#include "sections.h"

namespace judge {
namespace {

__extension__ using Wide = __int128;
using Json = nlohmann::ordered_json;
using Packet = std::span<const uint8_t>;

constexpr uint64_t kPacketBits = 1504;
constexpr int64_t kPcrHz = 27'000'000;
constexpr int64_t kPcrPerPts = 300;
constexpr int64_t kPtsWrap = int64_t{1} << 33;
constexpr int64_t kPcrWrap = kPtsWrap * kPcrPerPts;
constexpr int64_t kLongestWait_ticks = kPcrHz / 10;  // in the buffer of an output
constexpr double kRateTolerance = 1e-6;

struct Options {
  std::string out;
  std::string rate;
  std::string source;
  std::vector<std::string> maps;
  std::map<uint16_t, uint16_t> sourceOf;  // by PID of OUT
  bool constantRate = false;
  double tolerance_ns = 500;
  int64_t rateNum = 0;
  int64_t rateDen = 1;
};

struct Pcr {
  uint64_t packet;
  int64_t ticks;
  size_t at;  // bytes of payload that the PID had before it
};

// All that one PID carried. In `payload` the bits of PTS and DTS are 0; their values stand in `stamps`, by
// where they lay.
struct PidContent {
  uint64_t packets = 0;
  uint64_t jumps = 0;
  Bytes payload;
  std::vector<size_t> units;          // where payload units start
  std::vector<uint64_t> unitPackets;  // in which packets
  std::map<size_t, int64_t> stamps;
  std::vector<Pcr> pcrs;
  Packet last;
  bool repeated = false;  // the last packet was sent twice
};

struct Stream {
  Bytes bytes;
  uint64_t packets = 0;
  uint64_t damaged = 0;  // transport_error_indicator
  std::map<uint16_t, PidContent> pids;
};

int64_t modulo(int64_t value, int64_t wrap) {
  return (value % wrap + wrap) % wrap;
}
// The difference of two readings of a clock that wraps, taken for the shorter way.
int64_t signedModulo(int64_t value, int64_t wrap) {
  const int64_t up = modulo(value, wrap);
  return up > wrap / 2 ? up - wrap : up;
}

bool hasPayload(Packet p) {
  return (p[3] & 0x10) != 0;
}
bool hasAdaptation(Packet p) {
  return (p[3] & 0x20) != 0 && p[4] > 0;
}
bool announcesJump(Packet p) {
  return hasAdaptation(p) && (p[5] & 0x80) != 0;
}

std::optional<int64_t> pcrOf(Packet p) {
  if (!hasAdaptation(p) || p[4] < 7 || (p[5] & 0x10) == 0) return {};
  int64_t base = 0;
  for (size_t i = 6; i < 10; ++i) base = base << 8 | p[i];
  return (base << 1 | p[10] >> 7) * kPcrPerPts + ((p[10] & 1) << 8 | p[11]);
}

Packet payloadOf(Packet p) {
  if (!hasPayload(p)) return {};
  const size_t start = (p[3] & 0x20) != 0 ? size_t{5} + p[4] : 4;
  return start < kPacketSize ? p.subspan(start) : Packet{};
}

// A packet may come twice in a row: all bytes the same but those of the PCR.
bool isRepetition(Packet a, Packet b) {
  const auto same = [&](size_t from, size_t to) {
    return std::equal(a.begin() + static_cast<long>(from), a.begin() + static_cast<long>(to),
                      b.begin() + static_cast<long>(from));
  };
  if (!hasPayload(a) || a.empty()) return false;
  return pcrOf(a) && pcrOf(b) ? same(0, 6) && same(12, kPacketSize) : same(0, kPacketSize);
}

// Takes the times out of PES headers. A unit at the end whose header is cut off goes.
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

class Reader {
 public:
  Reader(const std::string& path, Faults& faults) : path_(path), faults_(faults) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error(fmt::format("cannot open {}: {}", path, std::strerror(errno)));
    stream_.bytes.assign(std::istreambuf_iterator<char>(file), {});
    if (file.bad()) throw std::runtime_error(fmt::format("cannot read {}", path));
  }

  Stream read() {
    stream_.packets = stream_.bytes.size() / kPacketSize;
    if (const size_t tail = stream_.bytes.size() % kPacketSize; tail != 0)
      faults_.add("tail", fmt::format("{}: {} bytes at the end are no packet", path_, tail));
    for (uint64_t i = 0; i < stream_.packets; ++i)
      take(i, Packet(stream_.bytes).subspan(i * kPacketSize, kPacketSize));
    for (auto& [number, pid] : stream_.pids)
      if (number != kNullPid) takeStamps(pid);
    return std::move(stream_);
  }

 private:
  void take(uint64_t index, Packet p) {
    if (p[0] != 0x47) {
      faults_.add("sync", fmt::format("{}: packet {} starts with {:#04x}", path_, index, p[0]));
      return;
    }
    if ((p[1] & 0x80) != 0) {
      ++stream_.damaged;
      faults_.add("transport_error", fmt::format("{}: packet {} is marked as damaged", path_, index));
    }
    const auto number = static_cast<uint16_t>((p[1] & 0x1F) << 8 | p[2]);
    PidContent& pid = stream_.pids[number];
    ++pid.packets;
    if (number == kNullPid || isRepeated(pid, p)) return;
    checkCounter(index, number, pid, p);
    pid.last = p;
    if (const auto ticks = pcrOf(p)) pid.pcrs.push_back({index, *ticks, pid.payload.size()});
    const Packet payload = payloadOf(p);
    if ((p[1] & 0x40) != 0 && !payload.empty()) {
      pid.units.push_back(pid.payload.size());
      pid.unitPackets.push_back(index);
    }
    pid.payload.insert(pid.payload.end(), payload.begin(), payload.end());
  }

  static bool isRepeated(PidContent& pid, Packet p) {
    pid.repeated = !pid.repeated && !pid.last.empty() && isRepetition(pid.last, p);
    return pid.repeated;
  }

  void checkCounter(uint64_t index, uint16_t number, PidContent& pid, Packet p) {
    if ((p[3] & 0x30) == 0)
      faults_.add("reserved", fmt::format("{}: packet {} has neither payload nor adaptation", path_, index));
    if (pid.last.empty() || announcesJump(p)) return;
    const int due = ((pid.last[3] & 15) + (hasPayload(p) ? 1 : 0)) & 15;
    if ((p[3] & 15) == due) return;
    ++pid.jumps;
    faults_.add("continuity", fmt::format("{}: packet {} of PID {:#x} counts {}, due is {}", path_, index,
                                          number, p[3] & 15, due));
  }

  std::string path_;
  Faults& faults_;
  Stream stream_;
};

// When each packet of a source is due by the PCRs of the PID whose PCR comes first, in `scale`-ths of a tick.
class SourceClock {
 public:
  SourceClock(const Stream& source, int64_t scale) : scale_(scale) {
    for (const auto& [number, pid] : source.pids)
      if (pid.pcrs.size() > 1 && (pcrs_ == nullptr || pid.pcrs[0].packet < pcrs_->front().packet))
        pcrs_ = &pid.pcrs;
    if (pcrs_ == nullptr) throw std::runtime_error("the source has no PID with two PCRs");
  }

  // What a PCR of that packet is ahead of that time.
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

struct Spread {
  std::optional<Wide> low, high;
  void add(Wide value) {
    low = low ? std::min(*low, value) : value;
    high = high ? std::max(*high, value) : value;
  }
  // The most that a value lies from the constant that suits all of them best.
  double ns(int64_t scale) const {
    return low ? static_cast<double>(*high - *low) / 2 / static_cast<double>(scale) * 1e9 / kPcrHz : 0;
  }
};

class Judge {
 public:
  Judge(const Options& options, Faults& faults) : options_(options), faults_(faults) {}

  Json run() {
    out_ = Reader(options_.out, faults_).read();
    Json streams = Json::object();
    if (!options_.source.empty()) {
      Faults ofSource;  // are not the output's
      source_ = Reader(options_.source, ofSource).read();
      clock_.emplace(source_, options_.rateNum);
      for (const auto& [number, from] : options_.sourceOf)
        streams[fmt::format("{:#x}", number)] = judgePasses(number, from);
      if (const double ns = allAdded_.ns(options_.rateNum); ns > options_.tolerance_ns)
        faults_.add("added", fmt::format("PCRs of all mapped PIDs together: {:.1f} ns added", ns));
    }
    Json summary = counts();
    summary["pcr"] = Json::object();
    for (const auto& [number, pid] : out_.pids)
      if (pid.pcrs.size() > 1) summary["pcr"][fmt::format("{:#x}", number)] = judgePcrs(number, pid);
    summary["streams"] = streams;
    return summary;
  }

 private:
  Json counts() const {
    Json jumps = Json::object(), packets = Json::object();
    for (const auto& [number, pid] : out_.pids) {
      packets[fmt::format("{:#x}", number)] = pid.packets;
      if (pid.jumps > 0) jumps[fmt::format("{:#x}", number)] = pid.jumps;
    }
    const auto sync = faults_.byKind().find("sync");
    return {{"packets", out_.packets},
            {"seconds",
             static_cast<double>(units(out_.packets)) / static_cast<double>(options_.rateNum) / kPcrHz},
            {"sync_errors", sync == faults_.byKind().end() ? 0 : sync->second.size()},
            {"transport_errors", out_.damaged},
            {"continuity_errors", jumps},
            {"pid_packets", packets}};
  }

  // Time of so many packets of the output. The unit of all times here is a tick of 27 MHz by the numerator of
  // the bit rate, in which nothing needs rounding.
  Wide units(uint64_t packets) const {
    return Wide{static_cast<int64_t>(packets * kPacketBits)} * options_.rateDen * kPcrHz;
  }

  // How far a PCR is ahead of the departure of its packet; `ticks` goes on over wraps.
  Wide aheadOfDeparture(const Pcr& pcr, int64_t ticks) const {
    return Wide{ticks} * options_.rateNum - units(pcr.packet);
  }

  Json judgePcrs(uint16_t number, const PidContent& pid) {
    const std::vector<Pcr>& pcrs = pid.pcrs;
    int64_t ticks = pcrs[0].ticks;
    Spread absolute, interval;
    for (size_t i = 0; i < pcrs.size(); ++i) {
      if (i > 0) {
        interval.add(units(pcrs[i].packet - pcrs[i - 1].packet));
        ticks += signedModulo(pcrs[i].ticks - pcrs[i - 1].ticks, kPcrWrap);
      }
      absolute.add(aheadOfDeparture(pcrs[i], ticks));
    }
    const auto ms = [&](Wide value) {
      return static_cast<double>(value) / static_cast<double>(options_.rateNum) * 1e3 / kPcrHz;
    };
    const double nominal = static_cast<double>(options_.rateNum) / static_cast<double>(options_.rateDen);
    const double told = static_cast<double>((pcrs.back().packet - pcrs[0].packet) * kPacketBits) * kPcrHz /
                        static_cast<double>(ticks - pcrs[0].ticks);
    const double error = absolute.ns(options_.rateNum);
    if (options_.constantRate && error > options_.tolerance_ns)
      faults_.add("pcr", fmt::format("PID {:#x}: PCRs are up to {:.1f} ns off", number, error));
    if (options_.constantRate && std::abs(told / nominal - 1) > kRateTolerance)
      faults_.add("rate", fmt::format("PID {:#x}: by its PCRs the stream has {:.1f} bit/s, not {:.1f}",
                                      number, told, nominal));
    Json entry = {{"count", pcrs.size()},
                  {"interval_ms", {{"min", ms(*interval.low)}, {"max", ms(*interval.high)}}},
                  {"bit_rate", told},
                  {"absolute_error_ns", error}};
    if (const auto added = added_.find(number); added != added_.end())
      entry["added_error_ns"] = added->second.ns(options_.rateNum);
    return entry;
  }

  // The output of a mapped PID must be: the end of a pass of the source, whole passes, the start of one.
  Json judgePasses(uint16_t number, uint16_t from) {
    const PidContent& out = out_.pids[number];
    const PidContent& source = source_.pids[from];
    const auto fail = [&](const std::string& text) {
      faults_.add("pass", fmt::format("PID {:#x} from {:#x}: {}", number, from, text));
      return Json{{"from", fmt::format("{:#x}", from)}, {"passes", 0}};
    };
    if (source.payload.empty()) return fail("the source has no payload there");
    const auto found =
        std::search(out.payload.begin(), out.payload.end(),
                    std::boyer_moore_horspool_searcher(source.payload.begin(), source.payload.end()));
    if (found == out.payload.end()) return fail("no whole pass of the source stands in the output");

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

  // All times of a pass are moved by one amount, and from pass to pass by one more, the same for all PIDs.
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
    // PCRs of packets without payload stand at the same byte whether they end a pass or begin the next. Those
    // that begin one are the last of them.
    const auto opening =
        std::count_if(source.pcrs.begin(), source.pcrs.end(), [](const Pcr& pcr) { return pcr.at == 0; });
    const int64_t before =
        std::count_if(out.pcrs.begin(), out.pcrs.end(),
                      [&](const Pcr& pcr) { return static_cast<int64_t>(pcr.at) <= first; }) -
        opening;
    Spread wait;
    int64_t ticks = out.pcrs[0].ticks;
    for (size_t i = 0; i < out.pcrs.size(); ++i) {
      const Pcr& pcr = out.pcrs[i];
      if (i > 0) ticks += signedModulo(pcr.ticks - out.pcrs[i - 1].ticks, kPcrWrap);
      const Pcr& was = source.pcrs[static_cast<size_t>(
          modulo(static_cast<int64_t>(i) - before, static_cast<int64_t>(source.pcrs.size())))];
      if (modulo(static_cast<int64_t>(pcr.at) - first - static_cast<int64_t>(was.at), length) != 0) {
        faults_.add("added", fmt::format("PID {:#x}: packet {} has a PCR where the source has none, or one "
                                         "was lost before",
                                         number, pcr.packet));
        return;
      }
      const Wide added = aheadOfDeparture(pcr, ticks) - clock_->ahead(was.packet, was.ticks);
      added_[number].add(added);
      // PCRs of different PIDs are counted from different wraps at most.
      if (!base_) base_ = added;
      const Wide wrap = Wide{kPcrWrap} * options_.rateNum;
      Wide common = (added - *base_) % wrap;
      if (common > wrap / 2) common -= wrap;
      if (common < -wrap / 2) common += wrap;
      allAdded_.add(common);
      const int64_t pass = passOf(static_cast<int64_t>(i), before, static_cast<int64_t>(source.pcrs.size()));
      if (const auto shift = shifts.find(pass); shift != shifts.end())
        wait.add(signedModulo(pcr.ticks - was.ticks - shift->second * kPcrPerPts, kPcrWrap));
    }
    if (const double ns = added_[number].ns(options_.rateNum); ns > options_.tolerance_ns)
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
  Faults& faults_;
  Stream out_;
  Stream source_;
  std::optional<SourceClock> clock_;
  std::map<uint16_t, Spread> added_;
  std::optional<Wide> base_;
  Spread allAdded_;
  std::optional<int64_t> period_;
};

uint16_t takePid(const std::string& text) {
  size_t used = 0;
  const unsigned long pid = std::stoul(text, &used, 0);
  if (used != text.size() || pid >= kNullPid) throw std::invalid_argument(text);
  return static_cast<uint16_t>(pid);
}

// Empty if the call makes sense, else what is wrong with it.
std::string checkCall(Options& options) {
  const char* end = options.rate.data() + options.rate.size();
  auto parsed = std::from_chars(options.rate.data(), end, options.rateNum);
  if (parsed.ec == std::errc() && parsed.ptr != end && *parsed.ptr == '/')
    parsed = std::from_chars(parsed.ptr + 1, end, options.rateDen);
  if (parsed.ec != std::errc() || parsed.ptr != end || options.rateNum <= 0 || options.rateDen <= 0)
    return "--rate: want NUMERATOR or NUMERATOR/DENOMINATOR in bit/s, above 0";
  if (options.source.empty() != options.maps.empty()) return "--source and --map go together";
  for (const std::string& text : options.maps) {
    const size_t equals = text.find('=');
    try {
      if (equals == std::string::npos) throw std::invalid_argument(text);
      const uint16_t from = takePid(text.substr(0, equals));
      options.sourceOf[takePid(text.substr(equals + 1))] = from;
    } catch (const std::logic_error&) {
      return fmt::format("--map {}: want SOURCE-PID=PID, as 0x300=0x100", text);
    }
  }
  return "";
}

int run(Options& options) {
  if (const std::string wrong = checkCall(options); !wrong.empty()) {
    fmt::print(stderr, "ts_judge: {}\n", wrong);
    return kWrongCall;
  }
  Faults faults;
  Json summary = Judge(options, faults).run();
  summary["faults"] = faults.byKind();
  fmt::print("{}\n", summary.dump(1));
  return faults.none() ? kOk : kFaulty;
}

}  // namespace
}  // namespace judge

int main(int argc, char** argv) {
  judge::Options options;
  CLI::App app(
      "Judges a transport stream and prints what it found as JSON. Exit code 0: nothing wrong, 1: faults, 2: "
      "wrong call.");
  app.add_option("out", options.out, "stream to judge")->required();
  app.add_option("--rate", options.rate, "its bit rate in bit/s, N or N/D")->required();
  app.add_option("--source", options.source, "file that was played into it over and over");
  app.add_option("--map", options.maps,
                 "SOURCE-PID=PID: how a PID of the source is called in the stream; the payload must be the "
                 "end of a pass, whole passes, the start of one, and no PCR may have got more error than "
                 "--tolerance (repeatable)");
  app.add_flag("--constant-rate", options.constantRate,
               "the source has a constant rate: PCRs must be right by themselves, within --tolerance");
  app.add_option("--tolerance", options.tolerance_ns, "ns that a PCR may be off")->capture_default_str();
  return judge::runProgram("ts_judge", app, argc, argv, [&] { return judge::run(options); });
}
