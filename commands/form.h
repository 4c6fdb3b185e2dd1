// The form of a command line: its options, how they are shown by --help, and the fields that they are written
// to. The one place that uses the parsing library is form.cpp.
#pragma once

#include <fmt/format.h>

#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "base/numbers.h"
#include "protocol/channel.h"

namespace CLI {
class App;
}

namespace commands {

// A command line that does not have the right form; what() says why.
class WrongCall : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};
inline constexpr const char* kHelpAdvice =
    "\nRun with --help for more information.\n";  // behind a wrong call

// A command line that asks for a text, such as the one of --help.
struct Help {
  std::string text;
};

constexpr int kAny = 1 << 20;  // number of texts without a limit

// An option ("--seconds"), or a value that is identified by its place ("file").
struct Option {
  // `valueType` is what the value is, for --help: "FILE.ts".
  Option(std::string optionName, std::string valueType, std::string help)
      : name(std::move(optionName)), type(std::move(valueType)), text(std::move(help)) {}

  Option& required() { return set(isRequired, true); }
  // The number of texts behind it; 0 is for an option that may be given alone.
  Option& count(int fewest, int largest) { return set(least, fewest).set(most, largest); }
  Option& repeatable(int largest = 1) { return set(isRepeatable, true).set(most, largest); }
  // Shown by --help; also the text of an option that is given alone.
  Option& byDefault(const std::string& value) { return set(defaultText, value); }
  Option& group(const std::string& title) { return set(heading, title); }
  template <typename T>
  Option& set(T& field, const T& value) {
    field = value;
    return *this;
  }

  std::string name, type, text, defaultText{}, heading{};
  bool isRequired = false, isRepeatable = false;
  int least = 1, most = 1;
};

class Form {
 public:
  // Takes one text; throws std::invalid_argument that says what is wrong with it.
  using Take = std::function<void(const std::string& text)>;

  Form(const std::string& program, const std::string& text);

  void take(const Option& option, Take take);
  // `convert` turns a text into the field's value, or throws std::invalid_argument.
  template <typename T, typename Convert>
  void value(const Option& option, T& field, Convert convert) {
    take(option, [&field, convert](const std::string& text) { field = convert(text); });
  }
  template <typename T, typename Convert>
  void values(const Option& option, std::vector<T>& field, Convert convert) {
    take(option, [&field, convert](const std::string& text) { field.push_back(convert(text)); });
  }
  void text(const Option& option, std::string& field) { value(option, field, std::identity()); }
  // Numbers from `least` to `most`; the field's value is the default.
  void number(Option option, double& field, double least, double most);
  template <typename T>
  void integer(Option option, T& field, u64 least, u64 most) {
    value(option.byDefault(std::to_string(field)), field,
          [least, most](const std::string& text) { return static_cast<T>(wholeNumber(text, least, most)); });
  }
  void flag(const std::string& name, const std::string& text, bool& field, const std::string& group = "");
  void excludes(const std::string& name, const std::string& other);
  // Adds --config, a file with options, and --write-config, which throws Help with such a file's text.
  void configuration();
  void footer(const std::string& text);

  // A command, or a group of commands, below this one. Of a group one command must be called.
  Form command(const std::string& name, const std::string& text);
  bool isCalled() const;

  // Fills the fields from a command line without its program. Throws WrongCall or Help. A form may parse
  // several lines.
  void parse(std::vector<std::string> words);
  // Splits a text as a shell does: blanks separate, quotes keep together.
  static std::vector<std::string> wordsOf(const std::string& line);

 private:
  explicit Form(std::shared_ptr<CLI::App> app) : app_(std::move(app)) {}
  static u64 wholeNumber(const std::string& text, u64 least, u64 most);

  std::shared_ptr<CLI::App> app_;  // of a command: that of the program keeps it
};

// --- Texts of a command line as values. All throw std::invalid_argument with the text and what is wanted.

// "'TEXT' is no WANTED" without a value.
template <typename T>
T valid(std::optional<T> value, const std::string& text, const std::string& wanted) {
  if (!value) throw std::invalid_argument(fmt::format("'{}' is no {}", text, wanted));
  return *std::move(value);
}

inline int slotOf(const std::string& text) {
  return valid(protocol::parseSlot(text), text, fmt::format("slot from 1 to {}", MAX_BOARD_NUM));
}
inline protocol::Channel channelOf(const std::string& text) {
  return valid(protocol::parseChannel(text), text,
               fmt::format("SLOT.CHANNEL from 1.1 to {}.{}", MAX_BOARD_NUM, MAX_QAM_OUT_NUM));
}
inline protocol::SourcePort inputOf(const std::string& text) {
  return valid(protocol::parseSourcePort(text), text, "SLOT.INPUT such as 2.1");
}
inline u16 pidOf(const std::string& text) {
  return valid(base::parseNumber<u16>(text, kNullPid), text, "PID from 0 to 0x1FFF");
}

}  // namespace commands
