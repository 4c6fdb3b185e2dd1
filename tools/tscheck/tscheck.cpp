// tscheck: is a transport stream sound, and, where its sources are given, did their tables and programmes
// come through whole and on time? It shares no code with the programs whose output it checks.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "checks.h"

namespace tscheck {
namespace {

constexpr double kConstant_ns = 1e6;  // larger PCR errors mean that the rate varies
constexpr int kOk = 0;
constexpr int kFaulty = 1;
constexpr int kWrongCall = 2;

template <typename Number>
bool parse(std::string_view text, Number& number, int base = 10) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  return error == std::errc() && end == text.data() + text.size();
}

// The texts before and behind a mark; all and `otherwise` without one.
std::pair<std::string_view, std::string_view> split(std::string_view text, char mark,
                                                    std::string_view otherwise = "") {
  const size_t at = text.find(mark);
  if (at == std::string_view::npos) return {text, otherwise};
  return {text.substr(0, at), text.substr(at + 1)};
}

Rate parseRate(const std::string& text) {
  Rate rate;
  const auto [num, den] = split(text, '/', "1");
  if (!parse(num, rate.num) || !parse(den, rate.den) || rate.num <= 0 || rate.den <= 0)
    throw std::invalid_argument(
        fmt::format("--rate {}: give N or N/D in bit/s, above 0, as 38014705 or 646250000/17", text));
  return rate;
}

void parseInterval(const std::string& text, std::array<unsigned, kTypes>& intervals) {
  const auto [name, ticks] = split(text, '=');
  const auto* row = std::ranges::find(kTypeRows, name, &TypeRow::name);
  if (row == kTypeRows.end() || !parse(ticks, intervals.at(static_cast<size_t>(row - kTypeRows.begin()))))
    throw std::invalid_argument(fmt::format(
        "--interval {}: give TABLE=TICKS with TABLE one of PAT PMT SDT_C SDT_O NIT_C NIT_O BAT CAT", text));
}

bool parsePid(std::string_view text, uint16_t& pid) {
  const bool isHex = text.starts_with("0x");
  return parse(text.substr(isHex ? 2 : 0), pid, isHex ? 16 : 10) && pid < kNullPid;
}

void parseMap(const std::string& text, std::map<uint16_t, uint16_t>& sourceOf) {
  const auto [source, file] = split(text, '=');
  uint16_t from = 0, pid = 0;
  if (!parsePid(source, from) || !parsePid(file, pid))
    throw std::invalid_argument(fmt::format("--map {}: give SOURCE-PID=PID, as 0x300=0x100", text));
  sourceOf[pid] = from;
}

void checkCall(const Options& options, bool hasIntervals) {
  if (options.source.empty() != options.sourceOf.empty())
    throw std::invalid_argument("--source and --map go together: which PIDs of the source are in FILE?");
  const bool needsRate =
      !options.psi.empty() || !options.source.empty() || options.constantRate || options.from_s > 0;
  if (needsRate && !options.rate.known())
    throw std::invalid_argument(
        "give the bit rate of FILE with --rate: --psi, --source, --constant-rate and --from need it");
  if (options.psi.empty() && (hasIntervals || options.untimed))
    throw std::invalid_argument("--interval and --untimed need --psi, the source of the tables");
  // not(a >= b): also true for NaN
  if (!(options.auxHz > 0) || !(options.tolerance_ns >= 0) || !(options.from_s >= 0))
    throw std::invalid_argument("--aux-hz must be above 0, --tolerance and --from 0 or more");
}

Json check(const Options& options, Faults& faults) {
  Contents contents;
  std::optional<PsiSource> psi;
  if (!options.psi.empty()) psi = readPsiSource(options, contents);
  const auto named = psi ? psi->programmes : programmes(options.file);
  std::set<uint16_t> pmtPids;
  for (const auto& [pid, programme] : named) pmtPids.insert(pid);

  TableDecoder decoder(named);
  ScanOptions scanOptions;
  scanOptions.sectionPids = tablePids(pmtPids);
  scanOptions.everyPid = options.everyPid;
  scanOptions.allowCut = options.allowCut;
  scanOptions.onPacket = [&](const Packet& packet) { decoder.push(packet); };
  if (psi) {
    scanOptions.marks = true;
    scanOptions.allowRepeats = false;  // a card sends no packet of a table twice
    scanOptions.contentPids = pmtPids;
  }
  for (const auto& [number, from] : options.sourceOf) scanOptions.payloadPids.insert(number);
  if (options.from_s > 0)
    scanOptions.fromPacket = static_cast<uint64_t>(std::ceil(options.from_s / options.rate.seconds(1)));
  const Scan seen = scan(options.file, scanOptions, contents, faults);
  // libdvbpsi joins the start of a new section to one that broke off and reports a bad CRC: its messages
  // count only where every section is whole.
  if (seen.cutSections == 0)
    for (const std::string& text : decoder.errors) faults.add("libdvbpsi", text);
  if (seen.packets <= scanOptions.fromPacket)
    faults.add("empty", options.from_s > 0 ? "there is no packet after --from" : "there is no packet");

  const Rate rate = options.rate.known() ? options.rate : rateByPcr(seen);
  Json summary = checkStream(options, rate, seen, contents, pmtPids, faults);
  for (const auto& [name, versions] : decoder.tables) summary["decoded"][name] = *versions.all.rbegin();
  if (psi) summary["psi"] = checkPsi(options, *psi, seen, decoder, contents, faults);
  if (!options.source.empty()) summary["streams"] = checkPasses(options, seen, faults);
  return summary;
}

// ---- The text

double real(const Json& number) {
  return number.get<double>();
}

void printStream(const Options& options, const Json& summary) {
  fmt::print("{}: {} packets, {} of them not null", options.file, summary["packets"].get<uint64_t>(),
             summary["packets_not_null"].get<uint64_t>());
  if (summary.contains("bit_rate"))
    fmt::print(", {:.3f} s at {:.1f} bit/s{}", real(summary["seconds"]), real(summary["bit_rate"]),
               options.rate.known() ? "" : " by the PCRs");
  fmt::print("\n");
  for (const auto& table : summary["repetition"]) {
    fmt::print("  {:6} PID {:7} {:3} section{}", table["table"].get<std::string>(),
               table["pid"].get<std::string>(), table["sections"].get<uint64_t>(),
               table["sections"] == 1 ? "" : "s");
    if (const Json ms = table.value("interval_ms", Json()); !ms.is_null())
      fmt::print(", each repeated after {:.1f} to {:.1f} ms, {:.1f} on average", real(ms["min"]),
                 real(ms["max"]), real(ms["mean"]));
    fmt::print("\n");
  }
  for (const auto& [pid, pcr] : summary["pcr"].items()) {
    const double error_ns = real(pcr["absolute_error_ns"]);
    fmt::print("  PCR    PID {:7} {} of them, {:.1f} to {:.1f} ms apart, {}\n", pid,
               pcr["count"].get<uint64_t>(), real(pcr["interval_ms"]["min"]), real(pcr["interval_ms"]["max"]),
               error_ns < kConstant_ns ? fmt::format("up to {:.0f} ns off at a constant rate", error_ns)
                                       : "the rate is not constant");
  }
  if (!summary.contains("bit_rate")) fmt::print("  No PID has two PCRs: give --rate to have times.\n");
}

void printFaults(const Faults& faults) {
  for (const auto& [kind, found] : faults.byKind) {
    for (const std::string& text : found.first) fmt::print("fault: {}: {}\n", kind, text);
    if (found.count > found.first.size())
      fmt::print("fault: {}: {} more\n", kind, found.count - found.first.size());
  }
  if (faults.byKind.empty()) fmt::print("Nothing wrong was found.\n");
}

int run(const Options& options, bool asJson) {
  Faults faults;
  Json summary = check(options, faults);
  if (asJson) {
    summary["faults"] = Json::object();
    for (const auto& [kind, found] : faults.byKind)
      summary["faults"][kind] = {{"count", found.count}, {"first", found.first}};
    fmt::print("{}\n", summary.dump(1));
  } else {
    printStream(options, summary);
    printFaults(faults);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
    throw std::runtime_error("the output could not be written");
  return faults.byKind.empty() ? kOk : kFaulty;
}

constexpr const char* kDescription =
    "Checks a transport stream file: sync bytes, continuity, section CRCs, repetition of the tables, PCRs "
    "and bit rate.\n"
    "With --psi it also checks the tables against a capture of their source, with --source the programmes.";

constexpr const char* kFooter =
    R"(Limits: a PAT or PMT section comes again within 0.5 s, SDT (actual) within 2 s, NIT, SDT (other) and BAT within 10 s
(ETSI TR 101 290), a PCR within 100 ms (ISO/IEC 13818-1). Times need --rate or a PID with two PCRs.

Examples:
  tscheck capture.ts
  tscheck capture.ts --json
  tscheck out.ts --rate 646250000/17 --psi samples/psi-many.ts --interval PAT=100
  tscheck out.ts --rate 646250000/17 --source four.ts --map 0x300=0x100 --map 0x301=0x101 --constant-rate

Exit code: 0 nothing wrong, 1 faults were found, 2 wrong call, or a file that cannot be read or output not written.
)";

int runProgram(int argc, char** argv) {
  Options options;
  std::vector<std::string> intervals, maps;
  unsigned defaultInterval = 300;
  bool asJson = false;
  CLI::App app(kDescription, "tscheck");
  app.set_version_flag("--version", "tscheck " QAM_VERSION, "print the version and end");
  app.footer(kFooter);
  app.add_option("FILE", options.file, "transport stream of packets of 188 bytes")->required();
  app.add_option_function<std::string>(
      "--rate", [&](const std::string& text) { options.rate = parseRate(text); },
      "its bit rate in bit/s, N or N/D; without it that of the PCRs. --psi, --source, --constant-rate and "
      "--from need it");
  app.add_flag_callback(
      "--no-limits", [&] { options.limits = false; },
      "measure repetition and PCR interval, but do not judge them");
  app.add_flag("--constant-rate", options.constantRate,
               "the rate is constant: PCRs must be right by it, within --tolerance");
  app.add_option("--tolerance", options.tolerance_ns, "ns that a PCR may be off")->capture_default_str();
  app.add_option("--from", options.from_s, "skip what comes before, in seconds");
  app.add_flag("--allow-cut", options.allowCut, "a section may break off where another one starts");
  app.add_flag("--every-pid", options.everyPid, "every PID but that of null packets carries sections");
  app.add_flag("--json", asJson, "print what was measured and all kinds of faults as JSON");
  for (CLI::Option* option :
       {app.add_option("--psi", options.psi, "capture whose tables FILE must carry, and no others"),
        app.add_option("--default-interval", defaultInterval, "ticks between two sections of a table")
            ->capture_default_str(),
        app.add_option("--interval", intervals,
                       "TABLE=TICKS, where it differs; 0: the table must not be sent"),
        app.add_option("--aux-hz", options.auxHz, "ticks a second")->capture_default_str(),
        app.add_flag("--untimed", options.untimed, "do not judge when tables come")})
    option->group("Tables of a source");
  for (CLI::Option* option :
       {app.add_option("--source", options.source, "file that was played into FILE over and over"),
        app.add_option(
            "--map", maps,
            "SOURCE-PID=PID: the number that a PID of the source has in FILE. The payload must be the end of "
            "a pass, whole passes and the start of one; no PCR may have more error added than --tolerance")})
    option->group("Programmes of a source");
  try {
    app.parse(argc, argv);
    options.intervals.fill(defaultInterval);
    for (const std::string& text : intervals) parseInterval(text, options.intervals);
    for (const std::string& text : maps) parseMap(text, options.sourceOf);
    checkCall(options, !intervals.empty());
    return run(options, asJson);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kOk : kWrongCall;
  } catch (const std::exception& error) {
    fmt::print(stderr, "tscheck: {}\n", error.what());
    return kWrongCall;
  }
}

}  // namespace
}  // namespace tscheck

int main(int argc, char** argv) {
  return tscheck::runProgram(argc, argv);
}
