// var: lists the variables of a card, reads and sets them.
#include <fmt/format.h>

#include <stdexcept>
#include <utility>
#include <vector>

#include "base/text.h"
#include "client/chassis_services.h"
#include "commands/families.h"
#include "commands/json_fields.h"

namespace commands {
namespace {

using protocol::CardVariable;
using protocol::VariableKind;
using protocol::VariableValue;

const CardVariable* variableOf(const std::string& text) {
  const CardVariable* variable = protocol::findCardVariable(text);
  if (variable == nullptr)
    throw std::invalid_argument(
        fmt::format("'{}' is no variable of a card; qamctl var list shows them", text));
  return variable;
}

Json unitOf(const CardVariable& variable) {
  return variable.unit.empty() ? Json(nullptr) : Json(variable.unit);
}

// --- list ---

Json listed(const CardVariable& variable) {
  Json entry = {{"id", variable.id},
                {"name", variable.name},
                {"unit", unitOf(variable)},
                {"kind", variable.kind == VariableKind::kText ? "text" : "number"},
                {"writable", variable.writable}};
  if (variable.writable) {
    entry["least"] = variable.bounds.least;
    entry["most"] = variable.bounds.most;
    entry["step"] = variable.step;
  }
  Json values = Json::array();
  for (const auto& [value, name] : variable.names) {
    if (!name.empty()) values.push_back({{"value", value}, {"name", name}});
  }
  if (!values.empty()) entry["values"] = std::move(values);
  entry["meaning"] = variable.meaning;
  return entry;
}

Json valueOf(const CardVariable& variable, const VariableValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) return *text;
  const u32 number = std::get<u32>(value);
  return variable.kind == VariableKind::kSignedDegrees ? Json(protocol::signedDegrees(number)) : Json(number);
}

class List final : public Command {
 public:
  void describe(Form& form) override { takeJson(form); }

  void carryOut(Session& session) override {
    constexpr auto kRow = "{:<3} {:<16} {:<8} {:<39} {}\n";
    Json all = Json::array();
    std::string text = fmt::format(kRow, "id", "name", "unit", "may be set to", "meaning");
    for (const CardVariable& v : protocol::cardVariables()) {
      all.push_back(listed(v));
      text += fmt::format(kRow, v.id, v.name, v.unit, protocol::writableValues(v), v.meaning);
    }
    session.print(json ? jsonText(all) : text);
  }
};

class Get final : public Command {
 public:
  void describe(Form& form) override {
    takeSlot(form);
    form.values(Option("variables", "ID|NAME", "what to read; all when there is none").count(1, kAny),
                variables_, variableOf);
    takeJson(form);
    form.footer(
        "A bit rate takes the card half a second, in which it answers nobody else.\n"
        "A number comes as the card stores it; behind it, in brackets, what it means.");
  }

  // Prints when all have been read: what there is, is whole.
  void carryOut(Session& session) override {
    if (variables_.empty()) {
      for (const CardVariable& variable : protocol::cardVariables()) variables_.push_back(&variable);
    }
    Json report = Json::array();
    std::string text;
    for (const CardVariable* variable : variables_) {
      const VariableValue value = client::getVariable(session.link(), slot(), variable->id);
      const std::string shown = base::printable(protocol::valueText(*variable, value));
      report.push_back({{"slot", slot() + 1},
                        {"id", variable->id},
                        {"name", variable->name},
                        {"value", valueOf(*variable, value)},
                        {"unit", unitOf(*variable)},
                        {"text", shown}});
      text += fmt::format("{:<3} {:<16} {}\n", variable->id, variable->name, shown);
    }
    session.print(json ? jsonText(report) : text);
  }

 private:
  std::vector<const CardVariable*> variables_;
};

class Set final : public Command {
 public:
  void describe(Form& form) override {
    takeSlot(form);
    form.value(Option("variable", "ID|NAME", "what to set").required(), variable_, variableOf);
    form.text(Option("value", "VALUE", "a number, as qamctl var list shows").required(), text_);
    form.footer(
        "A symbol rate without a row in the clock table (5000 to 7000 in steps of 125 have one) is set, with "
        "a note:\n"
        "the clock generator keeps its rate, and the channels are faulty until another rate is set.");
  }

  void prepare(Surroundings& /*surroundings*/) override {
    try {
      value_ = protocol::parseValue(*variable_, text_);
    } catch (const std::invalid_argument& e) {
      throw WrongCall(e.what());
    }
  }

  void carryOut(Session& session) override {
    client::setVariable(session.link(), slot(), variable_->id, value_);
    const std::string warning = protocol::valueWarning(*variable_, value_);
    if (!warning.empty()) session.note(warning);
  }

 private:
  const CardVariable* variable_ = nullptr;
  std::string text_;
  u32 value_ = 0;
};

}  // namespace

Group variableCommands() {
  return {.name = "var",
          .text = "The settings and readings of a card",
          .footer =
              "Examples:\n"
              "  qamctl var get 1 rfreq rflevel\n"
              "  qamctl var set 1 qammode 7",
          .commands = {
              {"list", "Show what there is and what may be set; asks no server", Needs::kNothing, make<List>},
              {"get", "Read variables of a card", Needs::kChassis, make<Get>},
              {"set",
               "Set a variable of a card, which applies it and has it saved (a save that fails shows in the "
               "chassis's log alone)",
               Needs::kChassis, make<Set>}}};
}

}  // namespace commands
