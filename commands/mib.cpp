// mib: prints the MIB module of the cards' SNMP objects.
#include "commands/families.h"
#include "mibs/mib_module.h"
#include "protocol/mib_rows.h"

namespace commands {
namespace {

class Mib final : public Command {
 public:
  void describe(Form& form) override {
    form.value(Option("--base", "OID", "what the objects stand below: ten numbers with dots")
                   .byDefault(protocol::mibBaseText(protocol::kDefaultMibBase)),
               base_, protocol::parseMibBase);
    form.footer(
        "The module is QAM-HEADEND-MIB (SMIv2); the base is the agent's.\n"
        "Net-SNMP's programs misread numbers of the base above 2147483647.\n"
        "\nExample: qamctl mib --base 1.3.6.1.4.1.32473.1.2.3 > QAM-HEADEND-MIB.txt");
  }
  void carryOut(Session& session) override { session.print(mibs::mibModule(base_)); }

 private:
  std::vector<u32> base_{protocol::kDefaultMibBase.begin(), protocol::kDefaultMibBase.end()};
};

}  // namespace

Group mibCommands() {
  return {.commands = {{"mib", "Print the MIB module of the cards' SNMP objects; asks no server",
                        Needs::kNothing, make<Mib>}}};
}

}  // namespace commands
