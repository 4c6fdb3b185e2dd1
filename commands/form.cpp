#include "commands/form.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <utility>

#include "base/numbers.h"

namespace commands {

// Of a program the form owns the parser; that of a command belongs to the one above.
struct Form::Parts {
  std::unique_ptr<CLI::App> owned;
  CLI::App* app;
};

Form::Form(std::unique_ptr<Parts> parts) : parts_(std::move(parts)) {}
Form::Form(Form&&) noexcept = default;
Form& Form::operator=(Form&&) noexcept = default;
Form::~Form() = default;

Form::Form(const std::string& program, const std::string& text) : parts_(std::make_unique<Parts>()) {
  parts_->owned = std::make_unique<CLI::App>(text, program);
  parts_->app = parts_->owned.get();
}

void Form::take(const Option& option, Take take) {
  const auto each = [take = std::move(take), name = option.name()](const CLI::results_t& texts) {
    try {
      for (const std::string& text : texts) take(text);
    } catch (const std::invalid_argument& e) {
      throw CLI::ValidationError(name, e.what());
    }
    return true;
  };
  CLI::Option* added = parts_->app->add_option(option.name_, each, option.text_);
  added->type_name(option.type_)->required(option.isRequired_)->expected(option.least_, option.most_);
  if (!option.default_.empty()) added->default_str(option.default_);
  if (!option.group_.empty()) added->group(option.group_);
  added->allow_extra_args(option.most_ == kAny);
  if (option.isRepeatable_ || option.most_ > 1) added->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  if (!option.isRepeatable_ && option.least_ > 1) added->multi_option_policy(CLI::MultiOptionPolicy::Throw);
}

void Form::text(const Option& option, std::string& field) {
  take(option, [&field](const std::string& text) { field = text; });
}

void Form::number(Option option, double& field, double least, double most) {
  option.byDefault(fmt::format("{:g}", field));
  take(option, [&field, least, most](const std::string& text) {
    const auto value = base::parseReal(text);
    if (!value || *value < least || *value > most)
      throw std::invalid_argument(fmt::format("'{}' is not a number from {:g} to {:g}", text, least, most));
    field = *value;
  });
}

u64 Form::wholeNumber(const std::string& text, u64 least, u64 most) {
  const auto value = base::parseNumber<u64>(text, most);
  if (!value || *value < least)
    throw std::invalid_argument(fmt::format("'{}' is not a whole number from {} to {}", text, least, most));
  return *value;
}

void Form::flag(const std::string& name, const std::string& text, bool& field, const std::string& group) {
  CLI::Option* added = parts_->app->add_flag(name, field, text);
  if (!group.empty()) added->group(group);
}

void Form::excludes(const std::string& name, const std::string& other) {
  parts_->app->get_option(name)->excludes(parts_->app->get_option(other));
}

void Form::footer(const std::string& text) {
  parts_->app->footer(text);
}

Form Form::command(const std::string& name, const std::string& text) {
  parts_->app->require_subcommand(1);
  auto parts = std::make_unique<Parts>();
  parts->app = parts_->app->add_subcommand(name, text)->fallthrough();
  return Form(std::move(parts));
}

bool Form::isCalled() const {
  return parts_->app->parsed();
}

void Form::parse(std::vector<std::string> words) {
  std::ranges::reverse(words);  // as the library takes them
  try {
    parts_->app->parse(std::move(words));
  } catch (const CLI::RequiredError& e) {
    const auto extra = parts_->app->remaining(true);
    throw WrongCall(extra.empty() ? e.what() : "there is no command '" + extra.front() + "'");
  } catch (const CLI::ParseError& e) {
    std::ostringstream help;
    std::ostringstream error;
    if (parts_->app->exit(e, help, error) == 0) throw Help{help.str()};
    throw WrongCall(e.what());
  }
}

std::vector<std::string> Form::wordsOf(const std::string& line) {
  return CLI::detail::split_up(line);
}

}  // namespace commands
