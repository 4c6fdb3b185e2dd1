// qamctl: manages the cards of a chassis over its management socket: the tables of a channel, the variables
// of a card, what goes out at the RF connectors. Exit codes: 0 done; 1 the request could not be carried out;
// 2 wrong call.
#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <string>

#include "client/udp_link.h"
#include "tools/commands.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongCall = 2;

std::string checkServer(const std::string& text) {
  return client::isServer(text) ? "" : fmt::format("'{}' is no ADDR:PORT", text);
}

constexpr const char* kFooter =
    "TABLE is PAT, PMT, SDT_C, SDT_O, NIT_C, NIT_O, BAT or CAT: C is the actual stream or network, O "
    "another.\n"
    "TICKS are ticks of the chassis's auxiliary clock.\n"
    "\n"
    "Examples:\n"
    "  qamctl psi load 1.1 capture.ts --interval PAT=100 --interval SDT_C=500\n"
    "  qamctl psi show 1.1 --save backup.ts\n"
    "  qamctl psi interval 1.2 NIT_C=1000 BAT=0\n"
    "  qamctl var get 1 rfreq rflevel\n"
    "  qamctl var set 1 rfreq 602000\n"
    "  qamctl rf\n"
    "  qamctl --server 192.0.2.7:49160 status\n"
    "\n"
    "Exit codes: 0 done; 1 the request could not be carried out (refused, card error, no reply, file error); "
    "2 wrong "
    "call.";

int run(int argc, char** argv) {
  std::string server = fmt::format("127.0.0.1:{}", client::kDefaultManagementPort);
  CLI::App app("Manages the modulator cards of a chassis over its management socket.", "qamctl");
  app.footer(kFooter);
  app.require_subcommand(1);
  app.add_option("--server", server, "the chassis's management socket")
      ->check(checkServer)
      ->capture_default_str()
      ->type_name("ADDR:PORT");
  tools::addPsiCommands(app, server);
  tools::addVarCommands(app, server);
  tools::addRfCommand(app, server);
  tools::addStatusCommand(app, server);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : kWrongCall;
  } catch (const std::exception& e) {
    fmt::print(stderr, "qamctl: {}\n", e.what());
    return kFailed;
  }
  std::cout.flush();
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return 0;
  fmt::print(stderr, "qamctl: the output could not be written\n");
  return kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {  // out of memory, or a fault in this program
    std::fprintf(stderr, "qamctl: %s\n", e.what());
    return kFailed;
  }
}
