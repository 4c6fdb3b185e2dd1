// The form of a command line: its options, how they are shown by --help, and the fields that they are written
// to. The one place that uses the parsing library is form.cpp.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/types.h"

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

// An option ("--seconds"), or a value that is told by its place ("file").
class Option {
 public:
  // `type` is what the value is, for --help: "FILE.ts".
  Option(std::string name, std::string type, std::string text)
      : name_(std::move(name)), type_(std::move(type)), text_(std::move(text)) {}

  Option& required() { return set(isRequired_, true); }
  // The number of texts behind it; 0 is for an option that may stand alone.
  Option& count(int least, int most) { return set(least_, least).set(most_, most); }
  Option& repeatable(int most = 1) { return set(isRepeatable_, true).set(most_, most); }
  // Shown by --help; also the text of an option that stands alone.
  Option& byDefault(const std::string& text) { return set(default_, text); }
  Option& group(const std::string& heading) { return set(group_, heading); }
  const std::string& name() const { return name_; }

 private:
  friend class Form;
  template <typename T>
  Option& set(T& field, const T& value) {
    field = value;
    return *this;
  }

  std::string name_, type_, text_, default_{}, group_{};
  bool isRequired_ = false, isRepeatable_ = false;
  int least_ = 1, most_ = 1;
};

class Form {
 public:
  // Takes one text; throws std::invalid_argument that says what is wrong with it.
  using Take = std::function<void(const std::string& text)>;

  Form(const std::string& program, const std::string& text);
  Form(Form&&) noexcept;
  Form& operator=(Form&&) noexcept;
  ~Form();

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
  void text(const Option& option, std::string& field);
  // Numbers from `least` to `most`; the field's value is the default.
  void number(Option option, double& field, double least, double most);
  template <typename T>
  void integer(Option option, T& field, u64 least, u64 most) {
    option.byDefault(std::to_string(field));
    take(option, [&field, least, most](const std::string& text) {
      field = static_cast<T>(wholeNumber(text, least, most));
    });
  }
  void flag(const std::string& name, const std::string& text, bool& field, const std::string& group = "");
  void excludes(const std::string& name, const std::string& other);
  void footer(const std::string& text);

  // A command, or a group of commands, below this one. Of a group one command must be called.
  Form command(const std::string& name, const std::string& text);
  bool isCalled() const;

  // Fills the fields from a command line without its program. Throws WrongCall or Help.
  void parse(std::vector<std::string> words);
  // Splits a text as a shell does: blanks separate, quotes keep together.
  static std::vector<std::string> wordsOf(const std::string& line);

 private:
  struct Parts;
  explicit Form(std::unique_ptr<Parts> parts);
  static u64 wholeNumber(const std::string& text, u64 least, u64 most);

  std::unique_ptr<Parts> parts_;
};

}  // namespace commands
