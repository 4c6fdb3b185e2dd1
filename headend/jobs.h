// The commands that a run carries out: those of `--do`, and the flags that are short forms of a command
// (`--psi`, `--interval`, `--pidmap`, `--programme`, `--set`, `--key`).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "headend/options.h"

namespace headend {

// Reads the command's files and checks it. Throws commands::WrongCall, std::runtime_error for a file of a
// short form.
void prepare(Job& job, const client::InputCounts& inputs);

// A job without a flag, prepared: "psi load 1.1 FILE". Throws commands::WrongCall.
Job jobOf(const std::string& line, const client::InputCounts& inputs = {});

class JobFlags {
 public:
  void describe(commands::Form& form) {
    describeUploads(form);
    describeCommands(form);
  }
  // `--set` of a variable; the form of the flag is the same for what a sensor measures.
  void set(const std::string& text);

  // Once the form has been parsed. An interval goes with the first upload of its channel. Throws
  // commands::WrongCall, or commands::Help of a command.
  std::vector<Job> jobs();

 private:
  struct Line {
    std::string flag{};
    Nanos at = 0;
    std::vector<std::string> words;
    std::string uploadTo{};  // the channel of --psi
    bool isDo = false;
  };
  void describeUploads(commands::Form& form);
  void describeCommands(commands::Form& form);
  void flag(commands::Form& form, const std::string& name, const char* text,
            Line (*lineOfText)(const std::string& text));
  void placeIntervals();

  std::vector<Line> lines_;
  std::map<std::string, std::map<std::string, std::string>> intervals_;  // ticks by channel and table
};

}  // namespace headend
