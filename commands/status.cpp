// status, rates and rf: what the chassis tells of its cards, as text or as JSON.
#include <fmt/format.h>

#include <stdexcept>

#include "commands/families.h"
#include "commands/status_report.h"

namespace commands {
namespace {

Json requiredStatus(Session& session) {
  auto status = statusOf(session.link());
  if (!status) throw std::runtime_error(fmt::format("{}: the server tells no status", session.chassis()));
  return *std::move(status);
}

class Status final : public Command {
 public:
  void describe(Form& form) override { takeJson(form); }
  void carryOut(Session& session) override {
    const Json status = requiredStatus(session);
    session.print(json ? jsonText(status) : statusText(status));
  }
};

class Rates final : public Command {
 public:
  void describe(Form& form) override {
    takeJson(form);
    form.footer(
        "Input is what comes in from the inputs that the channel's PID map names, routed what of it is sent. "
        "A channel that drops packets has more routed to it than its symbol rate and constellation carry.");
  }
  void carryOut(Session& session) override {
    const Json report = ratesReport(requiredStatus(session));
    session.print(json ? jsonText(report) : ratesText(report));
  }
};

class Rf final : public Command {
 public:
  void describe(Form& form) override {
    takeSlot(form, false);
    takeJson(form);
    form.footer(
        "kBd is the symbol rate that the modulator was told, clock kBd the one that the clock generator "
        "gives. A channel\n"
        "is on air, off, or faulty; the line below says why. '-' stands for what cannot be measured.");
  }

  void carryOut(Session& session) override {
    const Json all = readout(session);
    if (json) return session.print(jsonText(all));
    for (const std::string& line : rfLines(all)) session.print(line + "\n");
  }

 private:
  Json readout(Session& session) const {
    const Json status = requiredStatus(session);
    Json all = Json::array();
    bool found = false;
    for (const Json& card : member(status, "cards")) {
      const auto place = number(card, "slot");
      if (!place || (target.slot && *place != *target.slot + 1)) continue;
      found = true;
      for (const Json& entry : rfOfCard(card)) all.push_back(entry);
    }
    if (!all.empty()) return all;
    const std::string why = found         ? "the server tells no RF output"
                            : target.slot ? fmt::format("no card in slot {}", *target.slot + 1)
                                          : "the chassis has no card";
    throw std::runtime_error(fmt::format("{}: {}", session.chassis(), why));
  }
};

}  // namespace

Group statusCommands() {
  return {.commands = {
              {"status", "Show the cards of the chassis and what they send", Needs::kChassis, make<Status>},
              {"rates", "Show the rates of each channel: input, routed, PSI, null and total", Needs::kChassis,
               make<Rates>},
              {"rf", "Show what goes out at the RF connectors", Needs::kChassis, make<Rf>}}};
}

}  // namespace commands
