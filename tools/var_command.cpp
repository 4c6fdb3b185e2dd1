// qamctl var: lists the variables of a card, reads and sets them.
#include <fmt/format.h>

#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

#include "base/text.h"
#include "client/chassis_services.h"
#include "client/udp_link.h"
#include "tools/commands.h"

namespace tools {
namespace {

using protocol::CardVariable;
using protocol::VariableKind;
using protocol::VariableValue;

struct Options {
  const std::string& server;
  std::string slot{};
  std::vector<std::string> toRead{};
  std::string toSet{};
  std::string value{};
  bool json = false;
};

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

void list(const Options& options) {
  if (options.json) {
    Json all = Json::array();
    for (const CardVariable& variable : protocol::cardVariables()) all.push_back(listed(variable));
    printJson(all);
    return;
  }
  constexpr auto kRow = "{:<3} {:<16} {:<8} {:<39} {}\n";
  fmt::print(kRow, "id", "name", "unit", "may be set to", "meaning");
  for (const CardVariable& v : protocol::cardVariables()) {
    fmt::print(kRow, v.id, v.name, v.unit, protocol::writableValues(v), v.meaning);
  }
}

// --- get ---

Json valueOf(const CardVariable& variable, const VariableValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) return *text;
  const u32 number = std::get<u32>(value);
  return variable.kind == VariableKind::kSignedDegrees ? Json(protocol::signedDegrees(number)) : Json(number);
}

std::vector<const CardVariable*> wanted(const Options& options) {
  std::vector<const CardVariable*> all;
  for (const std::string& name : options.toRead) all.push_back(protocol::findCardVariable(name));
  if (all.empty()) {
    for (const CardVariable& variable : protocol::cardVariables()) all.push_back(&variable);
  }
  return all;
}

// Prints when all have been read: what there is, is whole.
void get(const Options& options) {
  const int slot = slotOf(options.slot);
  client::UdpLink link(options.server);
  Json report = Json::array();
  std::string text;
  for (const CardVariable* variable : wanted(options)) {
    const VariableValue value = client::getVariable(link, slot, variable->id);
    const std::string shown = base::printable(protocol::valueText(*variable, value));
    report.push_back({{"slot", slot + 1},
                      {"id", variable->id},
                      {"name", variable->name},
                      {"value", valueOf(*variable, value)},
                      {"unit", unitOf(*variable)},
                      {"text", shown}});
    text += fmt::format("{:<3} {:<16} {}\n", variable->id, variable->name, shown);
  }
  if (options.json) {
    printJson(report);
  } else {
    fmt::print("{}", text);
  }
}

// --- set ---

u32 valueToSet(const CardVariable& variable, const std::string& text) {
  try {
    return protocol::parseValue(variable, text);
  } catch (const std::invalid_argument& e) {
    throw CLI::ValidationError(e.what());
  }
}

void set(const Options& options) {
  const CardVariable& variable = *protocol::findCardVariable(options.toSet);
  const u32 value = valueToSet(variable, options.value);
  client::UdpLink link(options.server);
  client::setVariable(link, slotOf(options.slot), variable.id, value);
  const std::string warning = protocol::valueWarning(variable, value);
  if (!warning.empty()) fmt::print(stderr, "note: {}\n", warning);
}

// --- The command line ---

std::string checkVariable(const std::string& text) {
  return protocol::findCardVariable(text) != nullptr
             ? ""
             : fmt::format("'{}' is no variable of a card; qamctl var list shows them", text);
}

}  // namespace

void addVarCommands(CLI::App& app, const std::string& server) {
  CLI::App* var = app.add_subcommand("var", "The settings and readings of a card");
  var->require_subcommand(1);
  var->fallthrough();
  var->footer(
      "Examples:\n"
      "  qamctl var get 1 rfreq rflevel\n"
      "  qamctl var set 1 qammode 7");
  const auto shared = std::make_shared<Options>(Options{.server = server});
  Options& options = *shared;
  const auto command = [&](const char* name, const char* text, void (*run)(const Options&)) {
    return addCommand(*var, name, text, [shared, run] { run(*shared); });
  };

  CLI::App* list = command("list", "Show what there is and what may be set; asks no server", tools::list);
  addJson(list, options.json);

  CLI::App* get = command("get", "Read variables of a card", tools::get);
  addSlot(get, options.slot)->required();
  get->add_option("variables", options.toRead, "what to read; all when there is none")
      ->check(checkVariable)
      ->type_name("ID|NAME");
  addJson(get, options.json);
  get->footer(
      "A bit rate takes the card half a second, in which it answers nobody else.\n"
      "A number comes as the card stores it; behind it, in brackets, what it means.");

  CLI::App* set = command("set",
                          "Set a variable of a card, which applies it and has it saved (a save that fails "
                          "shows in the chassis's log alone)",
                          tools::set);
  addSlot(set, options.slot)->required();
  set->add_option("variable", options.toSet, "what to set")
      ->required()
      ->check(checkVariable)
      ->type_name("ID|NAME");
  set->add_option("value", options.value, "a number, as qamctl var list shows")
      ->required()
      ->type_name("VALUE");
  set->footer(
      "A symbol rate without a row in the clock table (5000 to 7000 in steps of 125 have one) is set, with a "
      "note:\n"
      "the clock generator keeps its rate, and the channels are faulty until another rate is set.");
}

}  // namespace tools
