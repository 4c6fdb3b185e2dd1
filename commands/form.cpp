#include "commands/form.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>

namespace commands {
namespace {

constexpr const char* kWriteConfig = "--write-config";

// The library does not give the line of a wrong key.
class ConfigFile final : public CLI::ConfigTOML {
 public:
  // A value may contain any character; the library would take what is behind a '#' in it for a comment.
  explicit ConfigFile(const CLI::App& app) : app_(app) { comment('\0'); }

  std::vector<CLI::ConfigItem> from_config(std::istream& input) const override {
    const std::string text{std::istreambuf_iterator<char>(input), {}};
    std::istringstream stream(text);
    auto all = CLI::ConfigTOML::from_config(stream);
    for (const CLI::ConfigItem& item : all) {
      const CLI::Option* option = app_.get_option_no_throw("--" + item.name);
      if (option != nullptr && option->get_configurable() && item.parents.empty()) continue;
      throw WrongCall(fmt::format("{} line {}: {} {} has no option '{}'",
                                  app_.get_config_ptr()->as<std::string>(), lineOf(text, nameOf(item)),
                                  app_.get_name(), QAM_VERSION, nameOf(item)));
    }
    return all;
  }

 private:
  // The library gives the begin of a section as an item "++".
  static std::string nameOf(const CLI::ConfigItem& item) {
    return item.name == "++" ? fmt::format("[{}]", fmt::join(item.parents, ".")) : item.fullname();
  }

  static int lineOf(const std::string& text, const std::string& key) {
    std::istringstream stream(text);
    int number = 1;
    for (std::string line; std::getline(stream, line); ++number)
      if (CLI::detail::trim_copy(line.substr(0, line.find('='))) == key) return number;
    return 0;
  }

  const CLI::App& app_;
};

}  // namespace

Form::Form(const std::string& program, const std::string& text)
    : app_(std::make_shared<CLI::App>(text, program)) {
  if (!program.empty())
    app_->set_version_flag("--version", program + " " QAM_VERSION, "print the version and end");
}

void Form::take(const Option& option, Take take) {
  const auto each = [take = std::move(take), name = option.name](const CLI::results_t& texts) {
    try {
      std::ranges::for_each(texts, take);
    } catch (const std::invalid_argument& e) {
      throw CLI::ValidationError(name, e.what());
    }
    return true;
  };
  CLI::Option* added = app_->add_option(option.name, each, option.text);
  added->type_name(option.type)->required(option.isRequired)->expected(option.least, option.most);
  if (!option.defaultText.empty()) added->default_str(option.defaultText);
  if (!option.heading.empty()) added->group(option.heading);
  added->allow_extra_args(option.most == kAny);
  if (option.isRepeatable || option.most > 1) added->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  if (!option.isRepeatable && option.least > 1) added->multi_option_policy(CLI::MultiOptionPolicy::Throw);
}

void Form::number(Option option, double& field, double least, double most) {
  value(option.byDefault(fmt::format("{:g}", field)), field, [least, most](const std::string& text) {
    const auto value = base::parseReal(text);
    if (!value || *value < least || *value > most)
      throw std::invalid_argument(fmt::format("'{}' is not a number from {:g} to {:g}", text, least, most));
    return *value;
  });
}

u64 Form::wholeNumber(const std::string& text, u64 least, u64 most) {
  const auto value = base::parseNumber<u64>(text, most);
  if (!value || *value < least)
    throw std::invalid_argument(fmt::format("'{}' is not a whole number from {} to {}", text, least, most));
  return *value;
}

void Form::flag(const std::string& name, const std::string& text, bool& field, const std::string& group) {
  CLI::Option* added = app_->add_flag(name, field, text);
  if (!group.empty()) added->group(group);
}

void Form::excludes(const std::string& name, const std::string& other) {
  app_->get_option(name)->excludes(app_->get_option(other));
}

void Form::configuration() {
  app_->config_formatter(std::make_shared<ConfigFile>(*app_));
  app_->set_config("--config", "",
                   "FILE with options, as --write-config prints them: a line NAME=VALUE for each")
      ->type_name("FILE");
  app_->add_flag_callback(
          kWriteConfig, [] {}, "print the options of this call as a file for --config, and end")
      ->configurable(false);
}

void Form::footer(const std::string& text) {
  app_->footer(text);
}

Form Form::command(const std::string& name, const std::string& text) {
  app_->require_subcommand(1);
  return Form(std::shared_ptr<CLI::App>(app_, app_->add_subcommand(name, text)->fallthrough()));
}

bool Form::isCalled() const {
  return app_->parsed();
}

namespace {

// The form of the file has no way to write these.
void refuseUnwritable(const CLI::App& app) {
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& value : option->results()) {
      const bool hasBothQuotes =
          value.find('"') != std::string::npos && value.find('\'') != std::string::npos;
      if (hasBothQuotes || value.find('\n') != std::string::npos) {
        throw WrongCall(fmt::format(
            "{}: a file cannot hold '{}': it has both kinds of quotes, or a line feed", kWriteConfig, value));
      }
    }
  }
}

}  // namespace

void Form::parse(std::vector<std::string> words) {
  std::ranges::reverse(words);  // as the library takes them
  try {
    app_->parse(std::move(words));
    const CLI::Option* writes = app_->get_option_no_throw(kWriteConfig);
    if (writes != nullptr && writes->count() > 0) {
      refuseUnwritable(*app_);
      throw Help{fmt::format("# Options of {} {}\n{}", app_->get_name(), QAM_VERSION, app_->config_to_str())};
    }
  } catch (const CLI::RequiredError& e) {
    const auto extra = app_->remaining(true);
    throw WrongCall(extra.empty() ? e.what() : "there is no command '" + extra.front() + "'");
  } catch (const CLI::ParseError& e) {
    std::ostringstream help;
    std::ostringstream error;
    if (app_->exit(e, help, error) == 0) throw Help{help.str()};
    throw WrongCall(e.what());
  }
}

std::vector<std::string> Form::wordsOf(const std::string& line) {
  return CLI::detail::split_up(line);
}

}  // namespace commands
