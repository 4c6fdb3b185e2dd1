#include "tools/web/page_call.h"

#include "commands/socket_session.h"

namespace tools {
namespace {

class PageSession final : public commands::SocketSession {
 public:
  PageSession(const Place& place, const std::atomic<bool>& ends, Outcome& outcome)
      : SocketSession(place.management, place.calibration), ends_(ends), outcome_(outcome) {}

  void print(const std::string& text) override { outcome_.output += text; }
  void note(const std::string& text) override { outcome_.notes.push_back(text); }
  bool pause(std::chrono::milliseconds time) override {
    if (ends_) client::fail("the web page ends; the command was not awaited");
    link().wait(time);
    return true;
  }
  void showPanel(std::chrono::seconds /*patience*/) override { client::fail("no terminal"); }

 private:
  const std::atomic<bool>& ends_;
  Outcome& outcome_;
};

}  // namespace

Outcome carryOut(const Place& place, const std::vector<std::string>& words, const std::string& file,
                 const std::atomic<bool>& ends) {
  commands::LineParser parser;
  const commands::Call call = parser.parse(words);
  if (call.entry->needs == commands::Needs::kCalibration && place.calibration.empty())
    client::fail("the calibration service of {} is not known: qamweb --calibration names it", place.name);
  for (const commands::FileUse& use : call.command->files) {
    if (use.file != file) throw commands::WrongCall("a file of this machine cannot be named here");
  }
  Outcome outcome;
  commands::Surroundings surroundings;
  surroundings.attended = false;
  call.command->prepare(surroundings);
  outcome.notes = surroundings.notes;
  PageSession session(place, ends, outcome);
  call.command->carryOut(session);
  for (const std::string& text : session.recordWarnings()) outcome.notes.push_back(text);
  return outcome;
}

}  // namespace tools
