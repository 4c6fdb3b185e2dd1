// Many histories: worker processes, each with prepared parents from which histories fork, and a fresh process
// for each start after a history.
#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "campaign/history.h"
#include "campaign/machine.h"
#include "campaign/plant.h"

namespace campaign {

// A process that carries `body` out, which is to end it, and that goes with this one, even if that is killed.
// After an exception, which it prints, its exit code is 1.
pid_t forked(const std::function<void()>& body);

struct Task {
  u64 seed = 0;
  std::optional<std::vector<std::size_t>> steps{};  // only these; nullopt: all
};

// Histories one after the other, in a folder of its own.
class Worker {
 public:
  // `files` has the samples and what makeFiles has added; `only`: no other preparation.
  Worker(std::filesystem::path folder, std::filesystem::path files, const Preparation* only,
         const Plant* plant);
  ~Worker();

  // The result: {"seed", "preparation", "steps", "failures", ...}; the failures of the start that followed
  // among them.
  nlohmann::ordered_json run(const Task& task);
  // The same with a log, a trace, a report and the outputs in the folder: in `history`, and in
  // `history/start`.
  nlohmann::ordered_json replay(const Task& task);

 private:
  struct Parent;
  History historyOf(const Task& task) const;
  Parent& parentOf(const Preparation& preparation);
  void copyFlash(const std::filesystem::path& from);
  int happen(const History& history, Machine::Traces traces);
  nlohmann::ordered_json finished(const Task& task, int status, Machine::Traces traces);
  int start(const Preparation& preparation, const nlohmann::ordered_json& result, Machine::Traces traces);

  std::filesystem::path folder_;
  std::filesystem::path files_;
  const Preparation* only_;
  const Plant* plant_;
  std::map<std::string, std::unique_ptr<Parent>> parents_;
};

// In `folder`: the samples, and captures and maps that are made from them. Throws std::runtime_error.
void makeFiles(const std::filesystem::path& samples, const std::filesystem::path& folder);

// What a shortest list of steps is that still fails in the same way, by taking steps away.
std::vector<std::size_t> shrink(Worker& worker, u64 seed, const std::string& invariant, std::size_t steps,
                                const std::function<void(std::size_t left)>& progress);

}  // namespace campaign
