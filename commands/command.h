// A management command: what a user may call, in two steps. First it is prepared: its command line is parsed
// and its files are read, without a chassis. Then it is carried out in a session: over sockets by `qamctl`,
// in virtual time by `headend --do`.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "base/interface.h"
#include "client/calibration.h"
#include "client/channel_change.h"
#include "client/link.h"
#include "commands/form.h"
#include "protocol/channel.h"

namespace commands {

// What a command uses while it is carried out.
struct Session : base::Interface {
  virtual client::Link& link() = 0;                         // throws client::Error
  virtual client::CalibrationLink& calibration() = 0;       // throws client::Error
  virtual std::string chassis() const = 0;                  // its name, for messages
  virtual void print(const std::string& text) = 0;          // the result, in whole lines
  virtual void note(const std::string& text) = 0;           // a sentence beside the result
  virtual void progress(const std::string& /*text*/) {}     // replaces the text before; empty: none
  virtual std::filesystem::path rescueFolder() const = 0;   // for what was there before; empty: none is kept
  virtual std::optional<client::InputCounts> inputs() = 0;  // of source cards; nullopt: unknown
  // Waits for that time of the chassis. False: the user wants the command to end. Only while `holdSignals` is
  // on does a signal of the user not end the program at once.
  virtual bool pause(std::chrono::milliseconds time) = 0;
  virtual void holdSignals(bool /*hold*/) {}
  virtual void showPanel(std::chrono::seconds patience) = 0;
};

constexpr std::chrono::milliseconds milliseconds(double seconds) {
  return std::chrono::milliseconds(static_cast<int>(seconds * 1000));
}

// A warning for each slot whose record the chassis could not save, as of the link's last replies.
std::vector<std::string> warnings(const client::Link& link);

// What is known before a command is carried out.
struct Surroundings {
  std::optional<client::InputCounts> inputs;  // of source cards; nullopt: unknown
  bool attended = true;                       // a user can end the command
  std::vector<std::string> notes{};           // filled by the commands
};

// What a command works on.
struct Target {
  std::optional<int> slot;  // of a card, from 0
  std::optional<protocol::Channel> channel;
  std::optional<protocol::SourcePort> input;
};

struct FileUse {
  std::string name;  // of the option
  std::filesystem::path file;
  bool isWritten = false;
};

// Options that may also be given before the command's name.
struct Shared {
  bool json = false;
  double timeout_s = 3;  // for a reply of the calibration service
};

class Command {
 public:
  Command() = default;
  virtual ~Command() = default;

  virtual void describe(Form& form) = 0;
  // Reads files and checks what can be checked. Throws WrongCall, or std::runtime_error for a file that
  // cannot be used.
  virtual void prepare(Surroundings& /*surroundings*/) {}
  // Throws std::exception.
  virtual void carryOut(Session& session) = 0;

  void share(const Shared& shared) {
    json = json || shared.json;
    timeout_s = shared.timeout_s;
  }

  Target target;
  std::vector<FileUse> files;

 protected:
  Command(Command&&) = default;
  Command& operator=(Command&&) = default;

  // Values that several commands have; they are noted in `target` and `files`.
  void takeChannel(Form& form);
  void takeSlot(Form& form, bool isRequired = true);
  void takeFile(Form& form, const Option& option, std::string& file, bool isWritten);
  void takeJson(Form& form) { form.flag("--json", "as JSON", json); }

  // Writes a file that the user names, whole or not at all. Throws std::runtime_error with its name.
  static void saveFile(const std::string& file, std::span<const u8> bytes);

  const protocol::Channel& channel() const { return target.channel.value(); }
  int slot() const { return target.slot.value(); }

  bool json = false;
  double timeout_s = 0;
};

// A command that changes a channel: it plans the change, and prints the plan (--dry-run) or carries it out.
class ChangeCommand : public Command {
 public:
  void describe(Form& form) final;

 protected:
  virtual void describeMore(Form& /*form*/) {}  // behind the channel
  // The files for what the channel holds are "pidmap-N.P.rescue.csv" and "psi-N.P.rescue.ts" in the session's
  // rescue folder. Throws client::Error if no reply arrives, std::filesystem::filesystem_error if the folder
  // cannot be created.
  client::ChangeOptions optionsFor(Session& session) const;
  // False: the change was only printed.
  bool apply(Session& session, const client::ChannelChange& change) const;

  bool force = false;  // see client::ChangeOptions

 private:
  bool dryRun_ = false;
};

// The service of the chassis that a command uses.
enum class Needs { kNothing, kChassis, kCalibration };

// A row of the table of commands.
struct Entry {
  const char* name;
  const char* text;
  std::unique_ptr<Command> (*make)(Command* described);
  Needs needs = Needs::kChassis;
  bool needsTerminal = false;  // or at least a user, who ends it
};
// A new command; or one with the values of a described command, which gets those of a new one.
template <typename T>
std::unique_ptr<Command> make(Command* described) {
  if (described == nullptr) return std::make_unique<T>();
  return std::make_unique<T>(std::exchange(static_cast<T&>(*described), T()));
}

// Commands about one subject. With a name they are called behind it: "psi load".
struct Group {
  std::string name{};
  std::string text{};
  std::string footer{};
  std::vector<Entry> commands;
  void (*describe)(Form& form, Shared& shared) = nullptr;  // options of the whole group; may be null
};
// The groups, each in the file of its commands.
Group alarmCommands();
Group backupCommands();
Group calibrationCommands();
Group callCommands();
Group faultCommands();
Group mibCommands();
Group panelCommands();
Group pidCommands();
Group pidMapCommands();
Group programmeCommands();
Group psiCommands();
Group statusCommands();
Group variableCommands();

// A command that is called on a command line.
struct Call {
  const Entry* entry = nullptr;
  std::unique_ptr<Command> command;
};

// The commands below a program's form. Must not be moved while the form is in use.
class Calls {
 public:
  // All commands; those of one group, called without the group's name; or only one command.
  explicit Calls(Form& program, const std::string& group = "", const Entry* only = nullptr);
  Call called();  // each time the program's form has been parsed

 private:
  struct Candidate {
    Form form;
    Call call;
  };
  std::vector<Candidate> candidates_;
  Shared shared_;
};

// Parses lines without a program, as "psi load 1.1 FILE". A run may have hundreds of lines, so a command is
// described only when it is called, and once for all its calls.
class LineParser {
 public:
  Call parse(const std::vector<std::string>& words);  // throws WrongCall or Help

 private:
  struct Described {
    explicit Described(const Entry* only) : calls(form, "", only) {}
    Form form{"", ""};
    Calls calls;
  };
  std::map<const Entry*, Described> described_;
};

}  // namespace commands
