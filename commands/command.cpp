#include "commands/command.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>
#include <system_error>

#include "base/files.h"
#include "client/carry_out.h"
#include "commands/json_fields.h"
#include "protocol/words.h"

namespace commands {

std::vector<std::string> warnings(const client::Link& link) {
  std::vector<std::string> all;
  for (const u16 slot : link.notKept()) {
    all.push_back(fmt::format(
        "slot {}: {}: if the power fails now, the last changes of the card are lost. The chassis tries to "
        "save them every 10 s; its log has the reason",
        slot + 1, protocol::words::kRecordNotKept.english));
  }
  return all;
}

void Command::takeChannel(Form& form) {
  form.value(
      Option("channel", "N.P", fmt::format("slot (1 to {}) and channel (1 or 2), such as 1.2", MAX_BOARD_NUM))
          .required(),
      target.channel, channelOf);
}

void Command::takeSlot(Form& form, bool isRequired) {
  Option option("slot", "N", fmt::format("slot of the card, 1 to {}", MAX_BOARD_NUM));
  form.value(isRequired ? option.required() : option, target.slot, slotOf);
}

void Command::takeFile(Form& form, const Option& option, std::string& file, bool isWritten) {
  form.take(option, [this, &file, isWritten, name = option.name](const std::string& text) {
    file = text;
    files.push_back({.name = name, .file = text, .isWritten = isWritten});
  });
}

void Command::saveFile(const std::string& file, std::span<const u8> bytes) {
  try {
    base::writeOutput(file, bytes);
  } catch (const std::system_error& e) {
    throw std::runtime_error(fmt::format("{}: cannot be written: {}", file, e.what()));
  }
}

void ChangeCommand::describe(Form& form) {
  takeChannel(form);
  describeMore(form);
  form.flag("--dry-run", "read and check everything, print what would change, and change nothing", dryRun_);
}

client::ChangeOptions ChangeCommand::optionsFor(Session& session) const {
  client::ChangeOptions options{.force = force};
  const std::filesystem::path folder = session.rescueFolder();
  if (!folder.empty()) {
    const std::string name = protocol::channelName(channel());
    options.mapFile = folder / fmt::format("pidmap-{}.rescue.csv", name);
    options.tablesFile = folder / fmt::format("psi-{}.rescue.ts", name);
  }
  options.note = [&session](const std::string& text) { session.note(text); };
  options.progress = [&session](std::size_t sent, std::size_t total) {
    session.progress(fmt::format("{} of {} packets sent", sent, total));
  };
  return options;
}

namespace {

std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream rest(text);
  for (std::string line; std::getline(rest, line);) lines.push_back(line);
  return lines;
}

}  // namespace

bool ChangeCommand::apply(Session& session, const client::ChannelChange& change) const {
  if (dryRun_) {
    session.print(json ? jsonText({{"plan", linesOf(change.describe())}}) : change.describe());
    return false;
  }
  client::carryOut(session.link(), change);
  session.progress("");
  return true;
}

// --- The table of commands

namespace {

const std::vector<Group>& table() {
  static const std::vector<Group> kTable = {
      psiCommands(),         pidMapCommands(),   programmeCommands(), backupCommands(), statusCommands(),
      pidCommands(),         variableCommands(), alarmCommands(),     panelCommands(),  callCommands(),
      calibrationCommands(), mibCommands(),      faultCommands()};
  return kTable;
}

// Null: the words call no command.
const Entry* entryOf(std::span<const std::string> words) {
  for (const Group& group : table()) {
    const std::size_t at = group.name.empty() ? 0 : 1;
    if (words.size() <= at || (at == 1 && words[0] != group.name)) continue;
    const auto found = std::ranges::find(group.commands, words[at], &Entry::name);
    if (found != group.commands.end()) return &*found;
  }
  return nullptr;
}

}  // namespace

Calls::Calls(Form& program, const std::string& group, const Entry* only) {
  for (const Group& family : table()) {
    const auto isWanted = [only](const Entry& entry) { return only == nullptr || &entry == only; };
    if ((!group.empty() && family.name != group) || std::ranges::none_of(family.commands, isWanted)) continue;
    const bool isBelow = !family.name.empty() && group.empty();
    Form above = isBelow ? program.command(family.name, family.text) : program;
    if (!family.footer.empty()) above.footer(family.footer);
    if (family.describe != nullptr) family.describe(above, shared_);
    for (const Entry& entry : family.commands) {
      if (!isWanted(entry)) continue;
      candidates_.push_back({.form = above.command(entry.name, entry.text),
                             .call = {.entry = &entry, .command = entry.make(nullptr)}});
      candidates_.back().call.command->describe(candidates_.back().form);
    }
  }
}

Call Calls::called() {
  const auto found = std::ranges::find_if(candidates_, [](const Candidate& c) { return c.form.isCalled(); });
  Call call = {.entry = found->call.entry, .command = found->call.entry->make(found->call.command.get())};
  call.command->share(std::exchange(shared_, {}));
  return call;
}

// All commands are for the message or the help of a line that calls none.
Call LineParser::parse(const std::vector<std::string>& words) {
  const Entry* entry = entryOf(words);
  Described& described = described_.try_emplace(entry, entry).first->second;
  described.form.parse(words);
  return described.calls.called();
}

}  // namespace commands
