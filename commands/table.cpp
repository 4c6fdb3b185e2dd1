#include <algorithm>
#include <optional>

#include "commands/families.h"

namespace commands {
namespace {

bool contains(const Group& family, const Entry* entry) {
  return std::ranges::any_of(family.commands, [entry](const Entry& each) { return &each == entry; });
}

// Null: the words call no command.
const Entry* entryOf(std::span<const std::string> words) {
  for (const Group& family : table()) {
    auto left = words;
    if (!family.name.empty()) {
      if (left.empty() || left.front() != family.name) continue;
      left = left.subspan(1);
    }
    const auto found = std::ranges::find_if(
        family.commands, [&](const Entry& entry) { return !left.empty() && left.front() == entry.name; });
    if (found != family.commands.end()) return &*found;
  }
  return nullptr;
}

}  // namespace

std::span<const Group> table() {
  static const std::vector<Group> kTable = {
      psiCommands(),   pidMapCommands(), programmeCommands(), statusCommands(),      variableCommands(),
      alarmCommands(), panelCommands(),  callCommands(),      calibrationCommands(), mibCommands()};
  return kTable;
}

Calls::Calls(Form& program, const std::string& group, const Entry* only) {
  for (const Group& family : table()) {
    if (!group.empty() && family.name != group) continue;
    if (only != nullptr && !contains(family, only)) continue;
    std::optional<Form> own;
    if (!family.name.empty() && group.empty()) own = program.command(family.name, family.text);
    Form& above = own ? *own : program;
    if (!family.footer.empty()) above.footer(family.footer);
    if (family.describe != nullptr) family.describe(above, shared_);
    for (const Entry& entry : family.commands) {
      if (only != nullptr && &entry != only) continue;
      candidates_.push_back({.form = above.command(entry.name, entry.text),
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

// A run may have hundreds of commands, so only the one that is called is described; all are for the message
// or the help of a line that calls none.
Call parseCall(const std::vector<std::string>& words) {
  Form form("", "");
  Calls calls(form, "", entryOf(words));
  form.parse(words);
  return calls.called();
}

}  // namespace commands
