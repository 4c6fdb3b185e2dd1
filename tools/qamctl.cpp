// qamctl: manages the cards of a chassis over its management socket: the tables, the PID map and the
// programmes of a channel, the variables of a card, what goes out at the RF connectors. It also prints the
// MIB module of the cards. Exit codes: 0 done; 1 the request could not be carried out; 2 wrong call.
#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <string>

#include "protocol/datagram.h"
#include "tools/commands.h"

namespace {

constexpr const char* kFooter =
    "TABLE is PAT, PMT, SDT_C, SDT_O, NIT_C, NIT_O, BAT or CAT: C is the actual stream or network, O "
    "another.\n"
    "TICKS are ticks of the chassis's auxiliary clock.\n"
    "\n"
    "Examples:\n"
    "  qamctl psi load 1.1 capture.ts --interval PAT=100 --interval SDT_C=500\n"
    "  qamctl psi show 1.1 --save backup.ts\n"
    "  qamctl psi interval 1.2 NIT_C=1000 BAT=0\n"
    "  qamctl pidmap load 1.1 map.csv\n"
    "  qamctl programme add 1.1 --from 2.1 --service News --pass 0x12\n"
    "  qamctl rates\n"
    "  qamctl var get 1 rfreq rflevel\n"
    "  qamctl var set 1 rfreq 602000\n"
    "  qamctl rf\n"
    "  qamctl alarms --history --lang zh\n"
    "  qamctl panel\n"
    "  qamctl key down ok\n"
    "  qamctl lcd --png panel.png\n"
    "  qamctl mib > QAM-HEADEND-MIB.txt\n"
    "  qamctl --server 192.0.2.7:49160 status\n"
    "\n"
    "Exit codes: 0 done; 1 the request could not be carried out (refused, card error, no reply, file error); "
    "2 wrong "
    "call.";

int run(int argc, char** argv) {
  std::string server = fmt::format("127.0.0.1:{}", protocol::kDefaultManagementPort);
  CLI::App app("Manages the modulator cards of a chassis over its management socket.", "qamctl");
  app.footer(kFooter);
  app.require_subcommand(1);
  tools::addServer(app, server, "the chassis's management socket");
  tools::addPsiCommands(app, server);
  tools::addPidMapCommands(app, server);
  tools::addProgrammeCommands(app, server);
  tools::addRatesCommand(app, server);
  tools::addCallCommand(app, server);
  tools::addVarCommands(app, server);
  tools::addRfCommand(app, server);
  tools::addPanelCommand(app, server);
  tools::addAlarmsCommand(app, server);
  tools::addStatusCommand(app, server);
  tools::addLcdCommands(app, server);
  tools::addMibCommand(app);
  return tools::runCommandLine(app, argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {  // out of memory, or a fault in this program
    std::fprintf(stderr, "qamctl: %s\n", e.what());
    return 1;
  }
}
