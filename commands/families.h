// The families of commands, each in a file of its own. The table of commands consists of them.
#pragma once

#include "commands/command.h"

namespace commands {

Group alarmCommands();
Group calibrationCommands();
Group callCommands();
Group mibCommands();
Group panelCommands();
Group pidMapCommands();
Group programmeCommands();
Group psiCommands();
std::unique_ptr<Command> makeSearch();  // of psi
Group statusCommands();
Group variableCommands();

}  // namespace commands
