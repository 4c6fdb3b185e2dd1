// The program `headend-campaign`.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <map>
#include <thread>

#include "base/files.h"
#include "base/progress.h"
#include "campaign/farm.h"
#include "campaign/summary.h"
#include "commands/form.h"
#include "headend/fail.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
using namespace campaign;  // NOLINT(google-build-using-namespace)

enum ExitCode : int { kHeld = 0, kFailed = 1, kWrongCall = 2, kEnded = 3 };

struct Options {
  u64 first = 1;
  u64 count = 1000;
  unsigned jobs = 2;
  std::string results;
  std::string summary;
  std::string samples = "samples";
  std::string folder;
  std::string preparation;
  std::string plant;
  u64 seed = 0;
  std::optional<std::vector<std::size_t>> steps;
  std::vector<std::string> files;
};

// What the workers share.
struct Board {
  std::atomic<u64> next{0};
  std::atomic<u64> done{0};
  std::atomic<u64> failed{0};
  std::atomic<bool> stops{false};
};
Board* board = nullptr;

void onSignal(int) {
  board->stops = true;
}

// A folder that is removed at the end, below TMPDIR.
class Scratch {
 public:
  Scratch() {
    std::string name = (fs::temp_directory_path() / "headend-campaign-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) headend::fail("cannot make a folder {}", name);
    path = name;
  }
  ~Scratch() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  fs::path path;
};

const Preparation* preparationOf(const std::string& name) {
  if (name.empty()) return nullptr;
  const auto found = std::ranges::find(preparations(), name, &Preparation::name);
  if (found == preparations().end())
    throw commands::WrongCall(fmt::format("there is no preparation '{}'", name));
  return &*found;
}
const Plant* plantOf(const std::string& name) {
  if (name.empty()) return nullptr;
  const auto found = std::ranges::find(plants(), name, &Plant::name);
  if (found == plants().end()) throw commands::WrongCall(fmt::format("there is no plant '{}'", name));
  return &*found;
}

Chosen chosenBy(const Options& options) {
  return {options.preparation, options.plant};
}

// Of the campaign with this head, a line each; of a seed that is there twice, one.
std::vector<Json> readResults(const Options& options, const Json& head) {
  std::ifstream file(options.results);
  std::string line;
  if (!std::getline(file, line)) return {};
  if (Json::parse(line, nullptr, false).dump(-1, ' ', false, Json::error_handler_t::replace) != head.dump())
    headend::fail(
        "{} is of another campaign, or of none: give another file for --results, or the same program, seeds "
        "and preparation",
        options.results);
  std::map<u64, Json> results;
  while (std::getline(file, line)) {
    Json result = Json::parse(line, nullptr, false);
    if (!result.is_object() || !result.contains("seed")) continue;  // the last line may be a part
    const u64 seed = result["seed"];
    if (seed >= options.first && seed - options.first < options.count) results[seed] = std::move(result);
  }
  std::vector<Json> all;
  all.reserve(results.size());
  for (auto& [seed, result] : results) all.push_back(std::move(result));
  return all;
}

// Opens the file, for this campaign alone; what an earlier one has written last may be half a line.
int openResults(const std::string& name, const Json& head) {
  const int fd = ::open(name.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) headend::fail("cannot open {}: {}", name, std::strerror(errno));
  if (::flock(fd, LOCK_EX | LOCK_NB) != 0) headend::fail("another campaign writes to {}", name);
  const off_t size = ::lseek(fd, 0, SEEK_END);
  char last = '\n';
  if (size > 0 && ::pread(fd, &last, 1, size - 1) != 1) headend::fail("cannot read {}", name);
  const std::string text = size == 0 ? head.dump() + '\n' : last == '\n' ? "" : "\n";
  if (::write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    headend::fail("cannot write {}", name);
  return fd;
}

// The result is written at the end: better no campaign than one without it.
void requirePlace(const std::string& file) {
  std::error_code ignored;
  const fs::path folder = fs::path(file).parent_path();
  if (!folder.empty() && !fs::is_directory(folder, ignored))
    headend::fail("cannot write {}: there is no folder {}", file, folder.string());
}

int work(const Options& options, const fs::path& folder, const fs::path& files, const std::set<u64>& done,
         int fd) {
  Worker worker(folder, files, preparationOf(options.preparation), plantOf(options.plant));
  for (u64 i = board->next++; i < options.count && !board->stops; i = board->next++) {
    if (done.contains(options.first + i)) continue;
    const Json result = worker.run({.seed = options.first + i});
    const std::string line = result.dump() + '\n';
    if (::write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
      headend::fail("cannot write results");
    ++board->done;
    if (!result["failures"].empty()) ++board->failed;
  }
  return 0;
}

void report(const Json& summary, const std::string& file) {
  const std::string text = summary.dump(2) + '\n';
  if (file.empty()) {
    std::fwrite(text.data(), 1, text.size(), stdout);
  } else {
    base::writeOutput(file, {reinterpret_cast<const u8*>(text.data()), text.size()});
  }
  for (const Json& each : summary["failures"]) {
    fmt::print(stderr, "seed {}: {}: {}\n  {}\n", each["seed"].get<u64>(),
               each["invariant"].get<std::string>(), each["text"].get<std::string>(),
               each["replay"].get<std::string>());
  }
}

int runCampaign(Options options) {
  const bool keepsResults = !options.results.empty();
  preparationOf(options.preparation);  // a wrong call ends before anything is written
  plantOf(options.plant);
  requirePlace(options.summary);
  if (keepsResults && options.results == options.summary)
    throw commands::WrongCall("--results and --summary name the same file");
  const Scratch scratch;
  if (!keepsResults) options.results = scratch.path / "results";
  const fs::path files = scratch.path / "files";
  makeFiles(options.samples, files);
  const Json head = {{"version", version()},
                     {"first", options.first},
                     {"count", options.count},
                     {"preparation", options.preparation},
                     {"plant", options.plant}};
  const std::vector<Json> before = readResults(options, head);
  const int fd = openResults(options.results, head);
  std::set<u64> done;
  for (const Json& each : before) done.insert(each["seed"].get<u64>());

  const auto began = std::chrono::steady_clock::now();
  std::vector<pid_t> workers;
  for (unsigned i = 0; i < options.jobs; ++i) {
    workers.push_back(
        forked([&] { ::_exit(work(options, scratch.path / fmt::format("worker{}", i), files, done, fd)); }));
  }
  bool allWell = true;
  {
    base::ProgressLine line;
    for (std::size_t left = workers.size(); left > 0;) {
      int status = 0;
      const pid_t ended = ::waitpid(-1, &status, WNOHANG);
      if (ended > 0) {
        --left;
        allWell &= status == 0;
        board->stops = board->stops || status != 0;
        continue;
      }
      const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
      line.show(fmt::format("{} of {} histories, {} failed, {:.0f} an hour", done.size() + board->done,
                            options.count, board->failed.load(),
                            static_cast<double>(board->done) / seconds * 3600));
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
  }
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  const std::vector<Json> results = readResults(options, head);
  Json summary = summaryOf({options.first, options.first + options.count - 1}, chosenBy(options), results);
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  summary["cpu_seconds"]["all"] = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                                  static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  summary["elapsed_seconds"] = seconds;
  if (!allWell || results.size() < options.count) {
    fmt::print(stderr, "headend-campaign: ended after {} of {} histories; {}\n", results.size(),
               options.count,
               keepsResults ? "the same call goes on" : "with --results FILE the same call would go on");
    return kEnded;
  }
  report(summary, options.summary);
  return summary["failures"].empty() ? kHeld : kFailed;
}

// Throws if a signal has asked for the end.
void demandMore() {
  if (board->stops) headend::fail("ended");
}

// ---- One history ----

History historyOf(const Options& options) {
  History history = campaign::historyOf(options.seed, preparationOf(options.preparation));
  if (!options.steps) return history;
  for (const std::size_t step : *options.steps) {
    if (step >= history.steps.size())
      throw commands::WrongCall(fmt::format("--steps: the history has no step {}", step));
  }
  return history.only(*options.steps);
}

void print(const History& history) {
  fmt::print("seed {}, preparation '{}', {:.3f} s\n", history.seed, history.preparation->name,
             static_cast<double>(history.length) / 1e9);
  for (std::size_t i = 0; i < history.steps.size(); ++i)
    fmt::print("{:3}  {}\n", i, describe(history.steps[i]));
}

int replayHistory(const Options& options) {
  print(historyOf(options));
  std::fflush(stdout);
  const fs::path folder = options.folder.empty() ? fmt::format("history-{}", options.seed) : options.folder;
  fs::create_directories(folder);
  const fs::path mark = folder / "headend-campaign";  // a replay may replace what another has left
  if (!fs::is_empty(folder) && !fs::exists(mark))
    headend::fail("the folder {} holds other files: give another --folder", folder.string());
  std::ofstream(mark) << "";
  makeFiles(options.samples, fs::absolute(folder) / "files");
  Worker worker(fs::absolute(folder), fs::absolute(folder) / "files", preparationOf(options.preparation),
                plantOf(options.plant));
  const Json result = worker.replay({.seed = options.seed, .steps = options.steps});
  fmt::print("{}\n", result.dump(2));
  fmt::print("log, trace, report and outputs are in {0}, those of the start after it in {0}/start\n",
             (folder / "history").string());
  return result["failures"].empty() ? kHeld : kFailed;
}

int shrinkHistory(const Options& options) {
  const Scratch scratch;
  makeFiles(options.samples, scratch.path / "files");
  Worker worker(scratch.path / "worker", scratch.path / "files", preparationOf(options.preparation),
                plantOf(options.plant));
  const History whole = historyOf(options);
  const Json result = worker.run({.seed = options.seed});
  if (result["failures"].empty()) {
    fmt::print("seed {} fails nowhere\n", options.seed);
    return kHeld;
  }
  const std::string invariant = result["failures"][0]["invariant"];
  base::ProgressLine line;
  const auto left = shrink(worker, options.seed, invariant, whole.steps.size(), [&](std::size_t steps) {
    demandMore();
    line.show(fmt::format("{} of {} steps", steps, whole.steps.size()));
  });
  line.show("");
  fmt::print("{}: {} of {} steps\n", invariant, left.size(), whole.steps.size());
  for (const std::size_t number : left) fmt::print("{:3}  {}\n", number, describe(whole.steps[number]));
  fmt::print("{}\n", replayLine(options.seed, chosenBy(options), left));
  return kFailed;
}

// ---- Plants ----

int findPlants(const Options& options) {
  const Scratch scratch;
  makeFiles(options.samples, scratch.path / "files");
  bool allFound = true;
  Worker sound(scratch.path / "sound", scratch.path / "files", preparationOf("two cards"), nullptr);
  for (u64 i = 0; i < 3; ++i) {
    const Json result = sound.run({.seed = options.first + i});
    if (!result["failures"].empty()) headend::fail("seed {} fails without a plant", options.first + i);
  }
  for (const Plant& plant : plants()) {
    Worker worker(scratch.path / "worker", scratch.path / "files", preparationOf("two cards"), &plant);
    u64 tried = 0;
    std::string found;
    while (found.empty() && tried < options.count) {
      demandMore();
      const Json result = worker.run({.seed = options.first + tried++});
      for (const Json& each : result["failures"]) {
        if (each["invariant"] == plant.invariant) found = each["text"];
      }
    }
    allFound &= !found.empty();
    fmt::print("{}: {}\n", plant.name,
               found.empty() ? fmt::format("NOT FOUND in {} histories", tried)
                             : fmt::format("history {}: {}: {}", tried, plant.invariant, found));
    std::fflush(stdout);
  }
  return allFound ? kHeld : kFailed;
}

int mergeSummaries(const Options& options) {
  std::vector<std::pair<std::string, Json>> summaries;
  for (const std::string& file : options.files)
    summaries.emplace_back(file, Json::parse(base::readFile(file, std::size_t{1} << 30), nullptr, false));
  const Json sum = merge(summaries);
  report(sum, options.summary);
  return sum["failures"].empty() ? kHeld : kFailed;
}

// Ascending.
std::vector<std::size_t> stepsOf(const std::string& text) {
  std::vector<std::size_t> steps;
  if (text == "none") return steps;
  for (std::size_t at = 0; at <= text.size();) {
    const std::size_t end = std::min(text.find(',', at), text.size());
    steps.push_back(commands::valid(base::parseNumber<std::size_t>(text.substr(at, end - at), 10'000), text,
                                    "list of steps such as 0,3,7"));
    at = end + 1;
  }
  for (std::size_t i = 1; i < steps.size(); ++i) {
    if (steps[i] <= steps[i - 1]) throw std::invalid_argument(fmt::format("'{}' does not ascend", text));
  }
  return steps;
}

int runProgram(std::vector<std::string> words) {
  Options options;
  commands::Form form(
      "headend-campaign",
      "Breaks a chassis in many ways and checks what it does. A history is a seed: it gives the cards, "
      "the work of operators and clients, and the faults. docs/proof.md describes it.");
  commands::Form run =
      form.command("run", "Run the histories of a range of seeds, and write what was found as JSON");
  commands::Form replay =
      form.command("replay", "Run one history again, with log, trace, report and outputs");
  commands::Form shrinks =
      form.command("shrink", "Find a shortest list of steps with which a history still fails");
  commands::Form finds = form.command("plants", "Plant a fault for each check, and see the check find it");
  commands::Form merges = form.command("merge", "Add the JSON results of several ranges up");
  constexpr u64 kMost = u64{1} << 62;
  for (commands::Form* each : {&run, &finds}) {
    each->integer(commands::Option("--first", "SEED", "the first seed"), options.first, 1, kMost);
    each->integer(commands::Option("--count", "NUMBER", "of histories; of plants: at most for each"),
                  options.count, 1, kMost);
  }
  run.integer(commands::Option("--jobs", "NUMBER", "histories at the same time"), options.jobs, 1, 1024);
  run.text(commands::Option(
               "--results", "FILE",
               "keep each result in FILE, a line each: the same call goes on where an earlier one ended"),
           options.results);
  for (commands::Form* each : {&run, &merges})
    each->text(commands::Option("--summary", "FILE", "write the JSON there, not to stdout"), options.summary);
  for (commands::Form* each : {&run, &replay, &shrinks}) {
    each->text(commands::Option("--preparation", "NAME", "only histories of this chassis"),
               options.preparation);
    each->text(commands::Option("--plant", "NAME", "plant a fault into the running module"), options.plant);
  }
  for (commands::Form* each : {&run, &replay, &shrinks, &finds})
    each->text(commands::Option("--samples", "FOLDER", "the project's samples").byDefault("samples"),
               options.samples);
  for (commands::Form* each : {&replay, &shrinks})
    each->integer(commands::Option("seed", "SEED", "the history").required(), options.seed, 0, kMost);
  replay.value(commands::Option("--steps", "LIST", "only these steps, as 0,3,7, or none"), options.steps,
               stepsOf);
  replay.text(commands::Option("--folder", "FOLDER", "for the log and all else (default history-SEED)"),
              options.folder);
  merges.values(commands::Option("files", "FILE", "summaries").required().repeatable(commands::kAny),
                options.files, [](const std::string& text) { return text; });
  form.footer(
      "Exit codes: 0 all held; 1 a check failed, or a plant was not found; 2 wrong call; 3 ended before all "
      "histories were done.");
  form.parse(std::move(words));
  if (run.isCalled()) return runCampaign(options);
  if (replay.isCalled()) return replayHistory(options);
  if (shrinks.isCalled()) return shrinkHistory(options);
  if (finds.isCalled()) return findPlants(options);
  if (merges.isCalled()) return mergeSummaries(options);
  throw commands::WrongCall("a command is missing: run, replay, shrink, plants or merge");
}

}  // namespace

int main(int argc, char** argv) {
  base::openStandardStreams();
  ::setenv("HEADEND_SNMP_SECRETS", "read-community readers\nwrite-community writers", 1);
  board =
      new (::mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board;
  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
  std::signal(SIGHUP, onSignal);
  std::signal(SIGPIPE, SIG_IGN);
  try {
    const int code = runProgram({argv + 1, argv + argc});
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) headend::fail("cannot write to stdout");
    return code;
  } catch (const commands::Help& help) {
    fmt::print("{}", help.text);
    return kHeld;
  } catch (const commands::WrongCall& e) {
    fmt::print(stderr, "headend-campaign: {}{}", e.what(), commands::kHelpAdvice);
    return kWrongCall;
  } catch (const std::exception& e) {
    fmt::print(stderr, "headend-campaign: {}\n", e.what());
    return kEnded;
  }
}
