// fault: the faults of the hardware that a headend injects.
#include <fmt/format.h>

#include <cmath>

#include "client/chassis_services.h"
#include "commands/command.h"
#include "commands/json_fields.h"

namespace commands {
namespace {

std::string faultOf(const std::string& text) {
  const bool isPlace = protocol::parseFault(text).has_value();
  return valid(isPlace ? std::optional(text) : std::nullopt, text,
               "fault such as 1.clock-no-ack or 6.1.input-lost");
}

struct FaultAdd final : Command {
  void describe(Form& form) override {
    form.value(Option("FAULT", "[N.]NAME", "the fault, on the card in slot N or on all").required(), fault_,
               faultOf);
    form.number(
        {"--seconds", "S", "it ends by itself after this time, in whole milliseconds (0: it has no end)"},
        seconds_, 0, 4e6);
    form.footer("Example: qamctl fault add 1.clock-no-ack --seconds 5");
  }
  void carryOut(Session& session) override {
    client::addFault(session.link(), fault_,
                     std::chrono::milliseconds(static_cast<u32>(std::ceil(seconds_ * 1e3))));
  }

  std::string fault_;
  double seconds_ = 0;
};

struct FaultClear final : Command {
  void describe(Form& form) override {
    form.value(
        Option("FAULT", "[N.]NAME", "the fault; without one all faults end, and none that is planned begins"),
        fault_, faultOf);
    form.footer("Example: qamctl fault clear 1.clock-no-ack");
  }
  void carryOut(Session& session) override { client::clearFault(session.link(), fault_); }

  std::string fault_;
};

Json listOf(const std::string& text) {
  Json faults = Json::parse(text, nullptr, false);
  if (!faults.is_array()) throw client::Error("the list of faults cannot be read");
  return faults;
}

struct FaultNames final : Command {
  void describe(Form& form) override {
    takeJson(form);
    form.footer("Example: qamctl fault names");
  }
  void carryOut(Session& session) override {
    const Json names = listOf(client::nameFaults(session.link()));
    if (json) return session.print(jsonText(names));
    for (const Json& one : names)
      session.print(fmt::format("{}{}: {}{}\n", one.value("of", "") == "input" ? "N.P." : "[N.]",
                                oneLine(member(one, "name")), oneLine(member(one, "text")),
                                one.value("ends", true) ? "" : "; it has no end"));
  }
};

struct FaultList final : Command {
  void describe(Form& form) override {
    takeJson(form);
    form.footer("Example: qamctl fault list --json");
  }
  void carryOut(Session& session) override {
    const Json faults = listOf(client::listFaults(session.link()));
    if (json) return session.print(jsonText(faults));
    for (const Json& fault : faults) session.print(lineOf(fault) + '\n');
    if (faults.empty()) session.print("no fault is present or planned\n");
  }

  static std::string lineOf(const Json& fault) {
    const auto until = number(fault, "until_seconds");
    const auto period = number(fault, "period_seconds");
    return fmt::format("{}  {}, from {:.3f} s{}{}", oneLine(member(fault, "fault")),
                       member(fault, "present") == true ? "present" : "not present",
                       number(fault, "from_seconds").value_or(0),
                       until ? fmt::format(" to {:.3f} s", *until) : "",
                       period ? fmt::format(", in the first half of every {:.3f} s", *period) : "");
  }
};

}  // namespace

Group faultCommands() {
  return {.name = "fault",
          .text = "Faults of the hardware that the headend injects",
          .footer = "N.P.input-lost takes input P of source card N away.",
          .commands = {{"add", "Make a fault present from now on", make<FaultAdd>},
                       {"names", "Show which faults the headend can inject", make<FaultNames>},
                       {"clear", "End a fault, or all of them", make<FaultClear>},
                       {"list", "Show the faults that are present or planned", make<FaultList>}}};
}

}  // namespace commands
