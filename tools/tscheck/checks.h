// The three checks of tscheck: the stream alone, the tables in it from a source, and the programmes routed
// into it from a source.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "scan.h"

struct dvbpsi_s;

namespace tscheck {

__extension__ using Wide = __int128;
using Json = nlohmann::ordered_json;

// Bit rate of a stream: num / den bit/s.
struct Rate {
  int64_t num = 0;  // 0: unknown
  int64_t den = 1;

  bool known() const { return num > 0; }
  double bitsPerSecond() const { return static_cast<double>(num) / static_cast<double>(den); }
  double seconds(double packets) const { return packets * kPacketBits / bitsPerSecond(); }
  // Time of that many packets, in ticks of 27 MHz by `num`: exact.
  Wide units(uint64_t packets) const {
    return Wide{static_cast<int64_t>(packets) * kPacketBits} * den * kPcrHz;
  }
  double ms(Wide units) const { return static_cast<double>(units) / static_cast<double>(num) * 1e3 / kPcrHz; }
};

enum Type : size_t { kPat, kPmt, kSdtC, kSdtO, kNitC, kNitO, kBat, kCat, kTypes };

struct TypeRow {
  std::string_view name;
  uint8_t tableId;
  int pid;              // -1: the PIDs that the programme association names
  const char* decoded;  // prefix of the names of its decoded tables
  double limit_s;       // longest time between repetitions of a section (ETSI TR 101 290); 0: none
};
inline constexpr std::array<TypeRow, kTypes> kTypeRows = {{
    {"PAT", 0x00, 0x0000, "PAT", 0.5},
    {"PMT", 0x02, -1, "PMT", 0.5},
    {"SDT_C", 0x42, 0x0011, "SDT 0x42", 2},
    {"SDT_O", 0x46, 0x0011, "SDT 0x46", 10},
    {"NIT_C", 0x40, 0x0010, "NIT 0x40", 10},
    {"NIT_O", 0x41, 0x0010, "NIT 0x41", 10},
    {"BAT", 0x4A, 0x0011, "BAT", 10},
    {"CAT", 0x01, 0x0001, "CAT", 0},
}};

struct Options {
  std::string file;
  Rate rate;
  bool limits = true;
  bool constantRate = false;
  double tolerance_ns = 500;
  double from_s = 0;
  bool allowCut = false;
  bool everyPid = false;
  // Tables of a source.
  std::string psi;
  double auxHz = 1000;
  std::array<unsigned, kTypes> intervals{};
  bool untimed = false;
  // Programmes of a source.
  std::string source;
  std::map<uint16_t, uint16_t> sourceOf;  // PID in the source by PID in the file
};

// Decodes the tables of a stream with libdvbpsi, each converted to a text, so that two streams can be
// compared.
class TableDecoder : boost::noncopyable {
 public:
  // Decodes the programme maps of these programmes, and all tables of the other types.
  explicit TableDecoder(const Programmes& programmes);
  ~TableDecoder();

  void push(Packet packet);  // a copy: libdvbpsi may write to the bytes

  // The contents that a table had.
  struct Versions {
    std::set<std::string> all;
    std::string last;
  };
  std::map<std::string, Versions> tables;  // by name: "SDT 0x46 ts 12"
  std::vector<std::string> errors;         // messages of libdvbpsi

 private:
  struct Decoder;
  // The handle of a new decoder of the PID.
  dvbpsi_s* add(uint16_t pid, void (*detach)(dvbpsi_s*));

  std::vector<std::unique_ptr<Decoder>> decoders_;
};

// The largest deviation of a value from the best constant for all values.
struct Spread {
  std::optional<Wide> low, high;
  void add(Wide value) {
    low = low ? std::min(*low, value) : value;
    high = high ? std::max(*high, value) : value;
  }
  double ns(const Rate& rate) const { return low ? rate.ms(*high - *low) / 2 * 1e6 : 0; }
};

// Times between events.
struct Intervals {
  uint64_t count = 0;
  double min = 0, max = 0, sum = 0;
  void add(double value) {
    min = count == 0 ? value : std::min(min, value);
    max = std::max(max, value);
    sum += value;
    ++count;
  }
  // An object with min, mean and max, each times `scale`.
  Json json(double scale = 1) const {
    const double mean = count == 0 ? 0 : sum / static_cast<double>(count);
    return {{"min", min * scale}, {"mean", mean * scale}, {"max", max * scale}};
  }
};

// The ticks of PCRs, continued over wraps. There must be at least one.
inline std::vector<int64_t> continued(const std::vector<Pcr>& pcrs) {
  std::vector<int64_t> ticks = {pcrs[0].ticks};
  for (size_t i = 1; i < pcrs.size(); ++i)
    ticks.push_back(ticks.back() + signedModulo(pcrs[i].ticks - pcrs[i - 1].ticks, kPcrWrap));
  return ticks;
}

// The time from the departure of a PCR's packet to the PCR; `ticks` continues over wraps.
inline Wide aheadOfDeparture(const Rate& rate, const Pcr& pcr, int64_t ticks) {
  return Wide{ticks} * rate.num - rate.units(pcr.packet);
}

std::set<uint16_t> tablePids(const std::set<uint16_t>& pmtPids);
// The table type of a section; none: not a table that a card carries.
std::optional<Type> typeOf(uint16_t pid, uint8_t tableId, const std::set<uint16_t>& pmtPids);

// The tables of a source: a card loaded with them must send these.
struct PsiSource {
  std::array<std::set<unsigned>, kTypes> sections{};  // contents by type
  std::array<unsigned, kTypes> packets{};             // of all sections of the type, each packed by itself
  std::map<std::string, std::string> tables{};        // as libdvbpsi decodes them
  Programmes programmes{};
  std::set<uint16_t> pmtPids{};
};
// Throws std::runtime_error when the file has no tables.
PsiSource readPsiSource(const Options& options, Contents& contents);
Json checkPsi(const Options& options, const PsiSource& source, const Scan& scan, const TableDecoder& decoder,
              Contents& contents, Faults& faults);

// By PID in the file: passes of the source, and the error that was added to the PCRs.
Json checkPasses(const Options& options, const Scan& scan, Faults& faults);

// Counts, bit rate, repetition of the tables and PCRs of a stream alone.
Json checkStream(const Options& options, const Rate& rate, const Scan& scan, const Contents& contents,
                 const std::set<uint16_t>& pmtPids, Faults& faults);

// The bit rate from the PCRs of the PID with the most PCRs; unknown if no PID has two.
Rate rateByPcr(const Scan& scan);

}  // namespace tscheck
