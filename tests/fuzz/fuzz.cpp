// The fuzzer's program: `fuzz TARGET` under afl-fuzz, `fuzz TARGET FILE...` to replay inputs, `fuzz` to list
// the targets.
#include "tests/fuzz/fuzz.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <iostream>
#include <iterator>
#include <optional>
#include <string_view>

#include "tests/headend/scratch.h"

// What AFL++'s compiler makes of its macros, and the sanitizers' options.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
extern u8* __afl_fuzz_ptr;
extern unsigned* __afl_fuzz_len;
int __afl_sharedmem_fuzzing = 1;
void __afl_manual_init();
int __afl_persistent_loop(unsigned inputs);

// Sources that are compiled again have their constants twice.
const char* __asan_default_options() {
  return "detect_odr_violation=0:detect_leaks=0";
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace fuzz {
namespace {

namespace fs = std::filesystem;

// afl-fuzz looks for these two in the program.
[[gnu::used]] const char* volatile persistentMode = "##SIG_AFL_PERSISTENT##";
[[gnu::used]] const char* volatile deferredStart = "##SIG_AFL_DEFER_FORKSRV##";

constexpr unsigned kInputsPerProcess = 10'000;
constexpr unsigned kMostProcessorTime_s = 60;  // of an input
constexpr std::size_t kMostBytes = 1U << 20U;
constexpr headend::Nanos kAfterInput = headend::kSecond;

bool underAfl() {
  return std::getenv("__AFL_SHM_ID") != nullptr;
}

// An endless loop is a finding. Of the processor's time, not of the clock's: the machine may be busy.
void limitProcessorTime() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  const rlim_t most = static_cast<rlim_t>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) + kMostProcessorTime_s;
  const rlimit limit{.rlim_cur = most, .rlim_max = RLIM_INFINITY};
  setrlimit(RLIMIT_CPU, &limit);
}

Bytes contentOf(const fs::path& file) {
  const std::string text = base::readFile(file, kMostBytes);
  return {text.begin(), text.end()};
}

// What afl-fuzz gives, or else stdin.
Bytes givenInput() {
  if (__afl_fuzz_ptr != nullptr) return {__afl_fuzz_ptr, __afl_fuzz_ptr + *__afl_fuzz_len};
  return {std::istreambuf_iterator<char>(std::cin), {}};
}

int takeInputs(const InputTarget& target, const std::vector<fs::path>& files) {
  for (const fs::path& file : files) target.take(contentOf(file));
  if (!files.empty()) return 0;
  __afl_manual_init();
  while (__afl_persistent_loop(kInputsPerProcess) != 0) {
    limitProcessorTime();
    target.take(givenInput());
  }
  return 0;
}

// Returns once for each input, in a process of its own: those of afl-fuzz, or each file. The first process
// gets nullopt when all are done. A single file is taken in the first process, for a debugger.
std::optional<Bytes> nextInput(const std::vector<fs::path>& files, int& failures) {
  if (files.empty()) {
    __afl_manual_init();
    return givenInput();
  }
  if (files.size() == 1) return contentOf(files.front());
  for (const fs::path& file : files) {
    const pid_t child = ::fork();
    if (child == 0) return contentOf(file);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (status == 0) continue;
    fmt::print(stderr, "finding: {}\n", file.string());
    ++failures;
  }
  return std::nullopt;
}

// Flash folder "flash" in the current folder; every input changes a copy of its own.
void copyFlash() {
  fs::remove_all("input");
  fs::create_directories("input");
  fs::copy("flash", "input/flash", fs::copy_options::recursive | fs::copy_options::create_hard_links);
  fs::current_path("input");
}

void requireSound(const CardTarget& target, headend::Headend& headend) {
  const auto allow = [&target](const std::string& text) {
    if (std::ranges::any_of(target.mayCause, [&](const char* begin) { return text.starts_with(begin); }))
      return;
    fmt::print(stderr, "fuzz: {}\n", text);
    require(false, "no device is used against its protocol and no check fails");
  };
  for (const auto& [text, count] : headend.violations.counts()) allow(text);
  for (const auto& check : headend.observation.failedChecks()) allow(check.text);
  require(headend.observation.longWaits().empty(), "no task waits for a semaphore for long");
  require(headend.runs(0), "the card runs");
  require(headend.chassis.slot(0).recordKept(), "the card's record is kept");
}

int takeWithCard(const CardTarget& target, const std::vector<fs::path>& given) {
  std::vector<fs::path> files(given.size());
  std::ranges::transform(given, files.begin(), [](const fs::path& file) { return fs::absolute(file); });
  const test::Scratch scratch;
  fs::current_path(scratch.path);
  headend::initFlash("flash");
  fs::resize_file("flash/K717_QAM/qam.bin", 100);  // its transfer would take most of the time
  Bytes stream;
  for (u8 i = 0; i < 16; ++i) base::append(stream, mpeg::makePacket(0x100, false, i));
  base::writeOutput("source.ts", stream);
  ::setenv("HEADEND_SNMP_SECRETS", "write-community change", 1);
  headend::Options options;
  options.flash = "flash";
  options.slots = {0};
  options.sources[5] = {{.file = "source.ts", .bitRate = 100'000, .address = {}}};
  options.fast = true;
  options.anyBitstream = true;
  options.log = underAfl() ? "/dev/null" : "";
  options.calibration = {"127.0.0.1", 0};
  options.snmp.listen = {"127.0.0.1", 0};
  options.snmp.writeCommunity = true;
  headend::Headend headend(options);
  const pid_t first = ::getpid();
  int failures = 0;
  const auto untilCardRuns = [&] {
    while (!headend.chassis.slot(0).initReturned) headend.kernel.delay(1);
  };
  headend.kernel.spawn("tFuzz", target.beforeCard ? 0 : 240, [&] {
    if (!target.beforeCard) untilCardRuns();
    if (const auto input = nextInput(files, failures)) {
      limitProcessorTime();
      copyFlash();
      target.take(headend, *input);
      untilCardRuns();
      headend.kernel.sleepUntil(headend.kernel.now() + kAfterInput);
    }
    headend.kernel.stop();
  });
  const std::atomic<bool> interrupted = false;
  const int code = headend::run(headend, interrupted);
  if (::getpid() == first && files.size() > 1) return failures == 0 ? 0 : 1;
  require(code == headend::kExitDone, "the run ends well");
  requireSound(target, headend);
  if (::getpid() == first) return 0;
  std::fflush(nullptr);
  ::_exit(0);
}

}  // namespace

int run(const std::string_view name, const std::vector<fs::path>& files) {
  for (const InputTarget& target : kInputTargets) {
    if (name == target.name) return takeInputs(target, files);
    if (name.empty()) fmt::print("{}\n", target.name);
  }
  for (const CardTarget& target : kCardTargets) {
    if (name == target.name) return takeWithCard(target, files);
    if (name.empty()) fmt::print("{}\n", target.name);
  }
  if (!name.empty()) fmt::print(stderr, "fuzz: there is no target {}\n", name);
  return name.empty() ? 0 : 2;
}

}  // namespace fuzz

int main(int argc, char** argv) {
  return fuzz::run(argc > 1 ? argv[1] : "", {argv + std::min(argc, 2), argv + argc});
}
