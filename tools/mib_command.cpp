// qamctl mib: prints the MIB module of the cards' SNMP objects.
#include <fmt/format.h>

#include <memory>
#include <stdexcept>

#include "mibs/mib_module.h"
#include "protocol/mib_rows.h"
#include "tools/commands.h"

namespace tools {
namespace {

std::string checkBase(const std::string& text) {
  try {
    protocol::parseMibBase(text);
    return "";
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
}

}  // namespace

void addMibCommand(CLI::App& app) {
  const auto base = std::make_shared<std::string>(protocol::mibBaseText(protocol::kDefaultMibBase));
  CLI::App* command =
      addCommand(app, "mib", "Print the MIB module of the cards' SNMP objects; asks no server",
                 [base] { fmt::print("{}", mibs::mibModule(protocol::parseMibBase(*base))); });
  command->add_option("--base", *base, "what the objects stand below: ten numbers with dots")
      ->check(checkBase)
      ->capture_default_str()
      ->type_name("OID");
  command->footer(
      "The module is QAM-HEADEND-MIB (SMIv2); the base is the agent's.\n"
      "Net-SNMP's programs misread numbers of the base above 2147483647.\n"
      "\nExample: qamctl mib --base 1.3.6.1.4.1.32473.1.2.3 > QAM-HEADEND-MIB.txt");
}

}  // namespace tools
