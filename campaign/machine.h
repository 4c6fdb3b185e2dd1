// A chassis at which a history happens, in this process. Its folder holds `flash`, and `files` with the
// samples.
#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "campaign/history.h"
#include "campaign/judge.h"
#include "campaign/plant.h"
#include "headend/headend.h"

namespace campaign {

class Machine {
 public:
  enum class Traces { kNone, kAll };  // all: log, trace, report and outputs in the folder

  // In the current folder. `slots`: of the preparation, or fewer. `history`: what begins with the power-up;
  // its commands wait for their cards.
  Machine(const Preparation& preparation, const std::vector<int>& slots, Traces traces,
          const History* history = nullptr);

  // Carries the preparation's commands out, until all is in the flash.
  void prepare();
  // Lets time pass until all cards run and calls `ready`, in a task, at that moment; with the power-up: at
  // once.
  void run(bool waits, const std::function<void()>& ready);
  // In `ready`: from now on the history happens. At its end, or when the power is cut, `result` is written
  // and the process ends.
  [[noreturn]] void play(const History& history, const Plant* plant);
  // The start after a power cut, or after a history that wrote: the cards must run. Ends as `play`.
  // `records` has the hash of each record's file, as the history's result has it.
  [[noreturn]] void playStart(const nlohmann::ordered_json& records);

 private:
  std::vector<headend::Job> jobsOf(const History& history) const;
  void schedule(const Step& step);
  void upload(const Step& step);
  void flood(const Step& step);
  void askSnmp(const Step& step);
  void planPowerCut(const Step& step);
  void task(Nanos at, std::function<void()> body);
  [[noreturn]] void cutPower(const std::string& how);
  [[noreturn]] void finish();
  bool isQuiet();

  const Preparation& preparation_;
  Traces traces_;
  bool hasCommands_;  // from the power-up on
  std::unique_ptr<headend::Headend> headend_;
  std::unique_ptr<Judge> judge_;
  bool isPlaying_ = false;
  Nanos begin_ = 0;
  std::string cut_;
  std::map<int, headend::Eeprom::Image> eeproms_;  // at the beginning
  u16 nextPort_ = 40'000;                          // of a client
};

}  // namespace campaign
