#include "commands/command.h"

#include <fmt/format.h>

#include <system_error>

#include "base/files.h"
#include "commands/values.h"

namespace commands {

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
  form.take(option, [this, &file, isWritten, name = option.name()](const std::string& text) {
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

}  // namespace commands
