// var, mib and call: the variables of a card, the MIB module that describes them, and its routines for a
// debug shell.
#include <fmt/format.h>

#include <stdexcept>
#include <vector>

#include "base/text.h"
#include "client/chassis_services.h"
#include "commands/command.h"
#include "commands/json_fields.h"
#include "mibs/mib_module.h"
#include "protocol/mib_rows.h"

namespace commands {
namespace {

using protocol::CardVariable;
using protocol::VariableKind;
using protocol::VariableValue;

const CardVariable* variableOf(const std::string& text) {
  const CardVariable* variable = protocol::findCardVariable(text);
  return valid(variable == nullptr ? std::nullopt : std::optional(variable), text,
               "variable of a card; qamctl var list shows them");
}

Json unitOf(const CardVariable& variable) {
  return variable.unit.empty() ? Json(nullptr) : Json(variable.unit);
}

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

struct VarList final : Command {
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

struct VarGet final : Command {
  void describe(Form& form) override {
    takeSlot(form);
    form.values(Option("variables", "ID|NAME", "what to read; all when there is none").count(1, kAny),
                variables_, variableOf);
    takeJson(form);
    form.footer(
        "A bit rate takes the card half a second, in which it answers no other client.\n"
        "A number is shown as the card stores it; behind it, in brackets, what it means.\n"
        "\nExample: qamctl var get 1 rfreq rflevel");
  }

  // Prints when all have been read, so never a partial answer.
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

  std::vector<const CardVariable*> variables_;
};

struct VarSet final : Command {
  void describe(Form& form) override {
    takeSlot(form);
    form.value(Option("variable", "ID|NAME", "what to set").required(), variable_, variableOf);
    form.text(Option("value", "VALUE", "a number, as qamctl var list shows").required(), text_);
    form.footer(
        "A symbol rate without a row in the clock table (5000 to 7000 in steps of 125 have one) is set, with "
        "a note:\n"
        "the clock generator keeps its rate, and the channels are faulty until another rate is set.\n"
        "\nExample: qamctl var set 1 rfreq 602000");
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

  const CardVariable* variable_ = nullptr;
  std::string text_;
  u32 value_ = 0;
};

struct Mib final : Command {
  void describe(Form& form) override {
    form.value(Option("--base", "OID", "the node that the objects are below: ten numbers with dots")
                   .byDefault(protocol::mibBaseText(protocol::kDefaultMibBase)),
               base_, protocol::parseMibBase);
    form.footer(
        "The module is QAM-HEADEND-MIB (SMIv2); the base is the agent's.\n"
        "Net-SNMP's programs misread numbers of the base above 2147483647.\n"
        "\nExample: qamctl mib --base 1.3.6.1.4.1.32473.1.2.3 > QAM-HEADEND-MIB.txt");
  }
  void carryOut(Session& session) override { session.print(mibs::mibModule(base_)); }

  std::vector<u32> base_{protocol::kDefaultMibBase.begin(), protocol::kDefaultMibBase.end()};
};

constexpr std::chrono::milliseconds kCallPoll{100};

// Decimal, negative too as a debug shell takes them, or 0x.
u32 argumentOf(const std::string& text) {
  const bool isNegative = text.starts_with('-');
  const u32 value = valid(base::parseNumber(std::string_view(text).substr(isNegative ? 1 : 0)), text,
                          "number of 32 bits, decimal or 0x");
  return isNegative ? 0u - value : value;
}

// The lines of a text, safe on a terminal.
std::string safe(std::string_view printed) {
  std::string text;
  for (std::size_t end = 0; (end = printed.find('\n')) != std::string_view::npos;
       printed.remove_prefix(end + 1))
    text += base::printable(printed.substr(0, end)) + '\n';
  return text + base::printable(printed);
}

struct CallRoutine final : Command {
  void describe(Form& form) override {
    takeSlot(form);
    form.text(Option("routine", "ROUTINE", "its name").required(), routine_);
    form.values(Option("arguments", "ARGS", "numbers, decimal or 0x").count(1, kAny), arguments_, argumentOf);
    form.number(Option("--seconds", "S", "how long to wait for its end"), seconds_, 0.001, 1e6);
    form.footer(
        "The routine runs in its own task; what it prints is shown as it is printed.\n"
        "\nExample: qamctl call 1 QamFpgaIfTest 0x5A5A");
  }

  void carryOut(Session& session) override {
    const u16 card = static_cast<u16>(slot());
    const u32 number = client::beginCall(session.link(), card, routine_, arguments_);
    std::size_t shown = 0;
    for (double waited_s = 0;; waited_s += std::chrono::duration<double>(kCallPoll).count()) {
      const client::CallState state = client::callState(session.link(), card, number);
      session.print(safe(std::string_view(state.printed).substr(shown)));
      shown = state.printed.size();
      if (state.finished) return;
      if (waited_s >= seconds_) {
        throw std::runtime_error(
            fmt::format("{} of card {} has not returned within {:g} s; it goes on (--seconds waits longer)",
                        routine_, slot() + 1, seconds_));
      }
      session.pause(kCallPoll);
    }
  }

  std::string routine_;
  std::vector<u32> arguments_;
  double seconds_ = 10;
};

}  // namespace

Group variableCommands() {
  return {.name = "var",
          .text = "The settings and readings of a card",
          .footer =
              "Examples:\n"
              "  qamctl var get 1 rfreq rflevel\n"
              "  qamctl var set 1 qammode 7",
          .commands = {{"list", "Show what there is and what may be set; asks no server", make<VarList>,
                        Needs::kNothing},
                       {"get", "Read variables of a card", make<VarGet>},
                       {"set", "Set a variable of a card, which applies it and has it saved", make<VarSet>}}};
}

Group mibCommands() {
  return {.commands = {{"mib", "Print the MIB module of the cards' SNMP objects; asks no server", make<Mib>,
                        Needs::kNothing}}};
}

Group callCommands() {
  return {
      .commands = {{"call", "Run a routine of a card that is meant for a debug shell", make<CallRoutine>}}};
}

}  // namespace commands
