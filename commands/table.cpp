#include <algorithm>

#include "commands/families.h"

namespace commands {

std::span<const Group> table() {
  static const std::vector<Group> kTable = {
      psiCommands(),   pidMapCommands(), programmeCommands(), statusCommands(),      variableCommands(),
      alarmCommands(), panelCommands(),  callCommands(),      calibrationCommands(), mibCommands()};
  return kTable;
}

Calls::Calls(Form& program, const std::string& group) {
  for (const Group& family : table()) {
    if (!group.empty() && family.name != group) continue;
    Form* above = &program;
    if (!family.name.empty() && group.empty()) {
      groups_.push_back(std::make_unique<Form>(program.command(family.name, family.text)));
      above = groups_.back().get();
    }
    if (!family.footer.empty()) above->footer(family.footer);
    if (family.describe != nullptr) family.describe(*above, shared_);
    for (const Entry& entry : family.commands) {
      candidates_.push_back({.form = above->command(entry.name, entry.text),
                             .call = {.entry = &entry, .command = entry.make()}});
      candidates_.back().call.command->describe(candidates_.back().form);
    }
  }
}

Call Calls::called() {
  const auto found = std::ranges::find_if(candidates_, [](const Candidate& c) { return c.form.isCalled(); });
  found->call.command->share(shared_);
  return std::move(found->call);
}

Call parseCall(const std::vector<std::string>& words) {
  Form form("", "");
  Calls calls(form);
  form.parse(words);
  return calls.called();
}

}  // namespace commands
