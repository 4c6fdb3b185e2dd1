#include "campaign/farm.h"

#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <numeric>
#include <set>

#include "base/files.h"
#include "campaign/host_faults.h"
#include "headend/fail.h"
#include "headend/flash_folder.h"

namespace campaign {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

// Of one history, which takes far less than a second: one that hangs is ended.
constexpr rlim_t kCpuLimit_s = 120;
constexpr unsigned kTimeLimit_s = 1800;

// Even if that is killed.
void diesWithParent() {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
}

// As of waitpid.
int statusOf(pid_t child) {
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

void enter(const fs::path& folder) {
  if (::chdir(folder.c_str()) != 0)
    headend::fail("cannot enter {}: {}", folder.string(), std::strerror(errno));
}
void limitTime() {
  const rlimit limit{.rlim_cur = kCpuLimit_s, .rlim_max = kCpuLimit_s};
  ::setrlimit(RLIMIT_CPU, &limit);
  ::alarm(kTimeLimit_s);
}

constexpr int kStatusNoResult = W_EXITCODE(kExitNoResult, 0);

// Throws if a process with this status could not write in its folder.
void demandSpace(int status, const fs::path& folder) {
  if (status == kStatusNoResult) headend::fail("cannot write in {}: is there space?", folder.string());
}

Json readResult(const fs::path& file) {
  std::error_code ignored;
  if (!fs::exists(file, ignored)) return nullptr;
  return Json::parse(base::readFile(file, 1 << 20), nullptr, false);
}

}  // namespace

pid_t forked(const std::function<void()>& body) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child < 0) headend::fail("cannot fork: {}", std::strerror(errno));
  if (child > 0) return child;
  diesWithParent();
  try {
    body();
  } catch (const std::exception& e) {
    fmt::print(stderr, "headend-campaign: {}\n", e.what());
  }
  ::_exit(1);
}

// A process with a prepared chassis. It forks a history at each line that it reads, and answers with its
// status.
struct Worker::Parent {
  pid_t process = -1;
  int requests = -1;
  int answers = -1;
};

Worker::Worker(fs::path folder, fs::path files, const Preparation* only, const Plant* plant)
    : folder_(std::move(folder)), files_(std::move(files)), only_(only), plant_(plant) {
  fs::create_directories(folder_);
}

Worker::~Worker() {
  for (const auto& [name, parent] : parents_) {
    ::close(parent->requests);
    ::close(parent->answers);
    if (parent->process > 0) statusOf(parent->process);
  }
}

History Worker::historyOf(const Task& task) const {
  History history = campaign::historyOf(task.seed, only_);
  return task.steps ? history.only(*task.steps) : history;
}

// The flash that a preparation leaves, and a process in which its cards run.
Worker::Parent& Worker::parentOf(const Preparation& preparation) {
  if (const auto known = parents_.find(preparation.name); known != parents_.end()) return *known->second;
  const fs::path folder = folder_ / preparation.name;
  fs::remove_all(folder);
  fs::create_directories(folder);
  fs::create_directory_symlink(files_, folder / "files");
  const int prepared = statusOf(forked([&] {
    limitTime();
    enter(folder);
    headend::initFlash("flash");
    Machine(preparation, preparation.slots, Machine::Traces::kNone).prepare();
    ::_exit(0);
  }));
  demandSpace(prepared, folder);
  if (prepared != 0) headend::fail("the preparation '{}' cannot be made", preparation.name);
  fs::remove(folder / "flash/lock");
  const auto& parent = parents_[preparation.name] = std::make_unique<Parent>();
  if (!preparation.isRunning) return *parent;
  int requests[2];
  int answers[2];
  if (::pipe(requests) != 0 || ::pipe(answers) != 0) headend::fail("no pipe: {}", std::strerror(errno));
  parent->process = forked([&] {
    ::close(requests[1]);
    ::close(answers[0]);
    for (const auto& [name, other] : parents_)
      ::close(other->requests);  // or its process would not see the end
    enter(folder);
    Machine machine(preparation, preparation.slots, Machine::Traces::kNone);
    machine.run(true, [&] {
      const int ready = 0;  // from now on its flash does not change
      if (::write(answers[1], &ready, sizeof ready) != sizeof ready) ::_exit(1);
      Task task;
      for (char go = 0; ::read(requests[0], &go, 1) == 1;) {
        const Json asked = readResult(folder_ / "history/task");
        const pid_t child = ::fork();
        if (child == 0) {
          diesWithParent();
          ::close(requests[0]);
          ::close(answers[1]);
          limitTime();
          enter(folder_ / "history");
          task.seed = asked["seed"];
          if (!asked["steps"].is_null()) task.steps = asked["steps"].get<std::vector<std::size_t>>();
          machine.play(historyOf(task), plant_);
        }
        const int status = statusOf(child);
        if (::write(answers[1], &status, sizeof status) != sizeof status) break;
      }
      ::_exit(0);
    });
  });
  ::close(requests[0]);
  ::close(answers[1]);
  parent->requests = requests[1];
  parent->answers = answers[0];
  int ready = 0;
  if (::read(parent->answers, &ready, sizeof ready) != sizeof ready)
    headend::fail("the preparation '{}' does not run", preparation.name);
  return *parent;
}

// The folder of a history, with a copy of the flash. The bitstream, which nothing writes, is linked.
void Worker::copyFlash(const fs::path& from) {
  const fs::path to = folder_ / "history";
  fs::remove_all(to);
  fs::create_directories(to);
  fs::create_directory_symlink(files_, to / "files");
  for (const auto& entry : fs::recursive_directory_iterator(from / "flash")) {
    const fs::path target = to / fs::relative(entry.path(), from);
    if (entry.is_directory()) {
      fs::create_directories(target);
    } else if (entry.path().extension() == ".bin") {
      fs::create_hard_link(entry.path(), target);
    } else if (entry.path().filename() != "lock") {
      fs::copy_file(entry.path(), target);
    }
  }
}

Json Worker::run(const Task& task) {
  const History history = historyOf(task);
  const Preparation& preparation = *history.preparation;
  Parent& parent = parentOf(preparation);
  copyFlash(folder_ / preparation.name);
  Json asked = {{"seed", task.seed}, {"steps", nullptr}};
  if (task.steps) asked["steps"] = *task.steps;
  std::ofstream(folder_ / "history/task") << asked.dump();
  int status = 0;
  if (preparation.isRunning) {
    if (::write(parent.requests, "g", 1) != 1 ||
        ::read(parent.answers, &status, sizeof status) != sizeof status)
      headend::fail("the process of the preparation '{}' has ended", preparation.name);
  } else {
    status = happen(history, Machine::Traces::kNone);
  }
  return finished(task, status, Machine::Traces::kNone);
}

// In a process that is not forked from a running chassis.
int Worker::happen(const History& history, Machine::Traces traces) {
  const Preparation& preparation = *history.preparation;
  return statusOf(forked([&] {
    limitTime();
    enter(folder_ / "history");
    Machine machine(preparation, preparation.slots, traces, preparation.isRunning ? nullptr : &history);
    machine.run(preparation.isRunning, [&] { machine.play(history, plant_); });
  }));
}

Json Worker::finished(const Task& task, int status, Machine::Traces traces) {
  const History history = historyOf(task);
  Json result = readResult(folder_ / "history/result");
  if (!result.is_object()) demandSpace(status == 0 ? kStatusNoResult : status, folder_);
  if (!result.is_object()) {
    result = {{"failures", Json::array()}, {"cut", ""}, {"written", Json::array()}};
    const std::string how = WIFSIGNALED(status) ? fmt::format("signal {}", WTERMSIG(status))
                                                : fmt::format("exit code {}", WEXITSTATUS(status));
    result["failures"].push_back(
        {{"invariant", "the program goes on"}, {"text", "the process ended with " + how}});
  }
  Json whole = {{"seed", task.seed}, {"preparation", history.preparation->name}};
  std::map<std::string, u64> kinds;
  for (const Step& step : history.steps) ++kinds[nameOf(step.kind)];
  whole["steps"] = kinds;
  whole.update(result);
  if (!result["written"].empty()) {
    const int started = start(*history.preparation, result, traces);
    const Json after = readResult(folder_ / "history/start/result");
    demandSpace(started, folder_);
    if (started != 0 || !after.is_object()) {
      whole["failures"].push_back({{"invariant", "the card starts again"}, {"text", "the process ended"}});
    } else {
      for (Json failure : after["failures"]) {
        if (failure["invariant"] == "the card runs") failure["invariant"] = "the card starts again";
        failure["text"] = "after the start " + failure["text"].get<std::string>();
        whole["failures"].push_back(failure);
      }
      whole["start_cpu_ms"] = after["cpu_ms"];
      for (const auto& [name, count] : after["checks"].items())
        whole["checks"][name] = whole["checks"].value(name, u64{0}) + count.get<u64>();
    }
  }
  return whole;
}

// The cards that were written start in a fresh process, in a folder of its own with the same flash.
int Worker::start(const Preparation& preparation, const Json& result, Machine::Traces traces) {
  const fs::path folder = folder_ / "history/start";
  fs::create_directories(folder);
  for (const char* name : {"flash", "files"})
    fs::create_directory_symlink(fs::path("..") / name, folder / name);
  return statusOf(forked([&] {
    limitTime();
    enter(folder);
    if (plant_ != nullptr) plant_->beforeStart(preparation.slots.front());
    Machine machine(preparation, result["written"].get<std::vector<int>>(), traces);
    machine.run(false, [&] { machine.playStart(result["records"]); });
  }));
}

Json Worker::replay(const Task& task) {
  const History history = historyOf(task);
  parentOf(*history.preparation);
  copyFlash(folder_ / history.preparation->name);
  return finished(task, happen(history, Machine::Traces::kAll), Machine::Traces::kAll);
}

// ---- Files ----

void makeFiles(const fs::path& samples, const fs::path& folder) {
  fs::create_directories(folder);
  const auto read = [&](const char* name) {
    try {
      return base::readFile(samples / name, 64 << 20);
    } catch (const std::system_error& e) {
      headend::fail("cannot read the sample {}: {}; --samples names the folder", (samples / name).string(),
                    e.what());
    }
  };
  const auto write = [&](const char* name, const std::string& content) {
    try {
      base::writeOutput(folder / name, {reinterpret_cast<const u8*>(content.data()), content.size()});
    } catch (const std::system_error& e) {
      headend::fail("cannot write {}: {}; TMPDIR names another place", (folder / name).string(), e.what());
    }
  };
  for (const char* name :
       {"psi-small.ts", "psi-full.ts", "psi-many.ts", "two-programmes.ts", "four-programmes-cbr.ts"})
    write(name, read(name));
  // Bytes are missing, inserted and changed, so that sync is lost.
  std::string damaged = read("four-programmes-cbr.ts");
  for (std::size_t at = 100'000; at < damaged.size(); at += 217'001) {
    damaged.erase(at, 77);
    damaged.insert(at + 50'000, std::string(301, '\x47'));
    damaged[at + 70'000] ^= 0x55;
  }
  write("damaged.ts", damaged);
  // Two streams of different bit rates, one after the other.
  write("rates.ts", read("four-programmes-cbr.ts").substr(0, 940'000) + read("two-programmes.ts"));
  for (const auto& [name, entries] : {std::pair{"map.csv", 12}, {"map-full.csv", 256}}) {
    std::string map = "src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n";
    for (int i = 0; i < entries; ++i) map += fmt::format("6,1,{},1,{},1,0\n", 256 + i, 512 + i);
    write(name, map);
  }
}

// ---- Shrinking ----

// Takes halves, quarters and so on away as long as the same check still fails.
std::vector<std::size_t> shrink(Worker& worker, u64 seed, const std::string& invariant, std::size_t steps,
                                const std::function<void(std::size_t left)>& progress) {
  std::vector<std::size_t> left(steps);
  std::iota(left.begin(), left.end(), 0);
  const auto fails = [&](const std::vector<std::size_t>& chosen) {
    const Json result = worker.run({.seed = seed, .steps = chosen});
    return std::ranges::any_of(result["failures"],
                               [&](const Json& each) { return each["invariant"] == invariant; });
  };
  for (std::size_t part = std::max<std::size_t>(1, left.size() / 2); part > 0; part /= 2) {
    for (std::size_t at = 0; at < left.size();) {
      std::vector<std::size_t> rest(left.begin(), left.begin() + static_cast<std::ptrdiff_t>(at));
      rest.insert(rest.end(), left.begin() + static_cast<std::ptrdiff_t>(std::min(left.size(), at + part)),
                  left.end());
      if (fails(rest)) {
        left = rest;
        progress(left.size());
      } else {
        at += part;
      }
    }
  }
  return left;
}

}  // namespace campaign
