// The command groups of qamctl, each in its own file, and functions that they share with qamcal.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "client/link.h"
#include "tools/psi_decode.h"

namespace tools {

// Each adds its commands to the program's. `server` is the --server of the command line, set before a command
// runs. A command throws CLI::ParseError for a wrong call, any other exception if it cannot be carried out.
void addAlarmsCommand(CLI::App& app, const std::string& server);
void addMibCommand(CLI::App& app);
void addPidMapCommands(CLI::App& app, const std::string& server);
void addPsiCommands(CLI::App& app, const std::string& server);
void addProgrammeCommands(CLI::App& app, const std::string& server);
void addLcdCommands(CLI::App& app, const std::string& server);  // "lcd" and "key"
void addRatesCommand(CLI::App& app, const std::string& server);
void addCallCommand(CLI::App& app, const std::string& server);
void addSearchCommand(CLI::App& psi, const std::string& server);  // "search", below psi
void addVarCommands(CLI::App& app, const std::string& server);
void addRfCommand(CLI::App& app, const std::string& server);
void addPanelCommand(CLI::App& app, const std::string& server);
void addStatusCommand(CLI::App& app, const std::string& server);

// --server, an ADDR:PORT; `server` has its default.
void addServer(CLI::App& app, std::string& server, const char* text);

// Runs the command of the command line; errors are printed to stderr. Returns the exit code: 0 done, 1 could
// not be carried out (or its output not written), 2 wrong call.
int runCommandLine(CLI::App& app, int argc, char** argv);

CLI::App* addCommand(CLI::App& parent, const char* name, const char* text, std::function<void()> run);
CLI::Option* addChannel(CLI::App* app, std::string& channel);  // "N.P", for protocol::parseChannel
CLI::Option* addSlot(CLI::App* app, std::string& slot);        // "N", 1 to 6, for slotOf
int slotOf(const std::string& slot);                           // from 0
void addJson(CLI::App* app, bool& json);

// The server's status of its chassis. Throws std::runtime_error with the server's name if there is none.
Json requiredStatusOf(const std::string& server);

// Indented, and escaped beyond ASCII, so that no text from the chassis can control a terminal.
void printJson(const Json& json);

}  // namespace tools
