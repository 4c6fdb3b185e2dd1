// The commands that a run carries out: those of `--do`, and the flags that are short forms of a command
// (`--psi`, `--interval`, `--pidmap`, `--programme`, `--set`, `--key`).
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "commands/command.h"
#include "headend/kernel/kernel.h"

namespace headend {

// A command, and the virtual time from which it is carried out.
struct Job {
  std::string flag;   // for messages: "--psi 1.1=capture.ts"
  std::string text;   // the command: "psi load 1.1 capture.ts"
  Nanos at = 0;       // at this time, or as soon as the card runs
  bool isDo = false;  // of --do: its result is shown
  std::shared_ptr<commands::Call> call;
  std::vector<std::string> notes;  // of its preparation

  const commands::Target& target() const { return call->command->target; }
  int slot() const;  // of the card that it works on, from 0; -1: none
  bool usesCalibration() const { return call->entry->needs == commands::Needs::kCalibration; }
  // Reads its files and checks it. Throws commands::WrongCall, std::runtime_error for a file of a short form.
  void prepare(const client::InputCounts& inputs);
};

// A job without a flag, prepared: "psi load 1.1 FILE". Throws commands::WrongCall.
Job jobOf(const std::string& line);

class JobFlags {
 public:
  void describe(commands::Form& form);
  // `--set` of a variable; the form of the flag is the same for what a sensor measures.
  void set(const std::string& text);

  // Once the form has been parsed. An interval goes with the first upload of its channel. Throws
  // commands::WrongCall, or commands::Help of a command.
  std::vector<Job> jobs();

 private:
  struct Line {
    std::string flag;
    Nanos at = 0;
    std::vector<std::string> words;
  };
  void take(const std::string& flag, const std::string& text, const std::string& want,
            std::vector<std::string> (*rewrite)(const std::string& name, const std::string& value));
  void takeDo(const std::string& text);
  void takeInterval(const std::string& text);
  void takeKeys(const std::string& text);
  void placeIntervals();

  std::vector<Line> lines_;
  std::map<std::string, std::map<std::string, std::string>> intervals_;  // ticks by channel and table
};

}  // namespace headend
