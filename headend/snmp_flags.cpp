#include "headend/snmp_flags.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

#include "headend/flag_values.h"
#include "protocol/mib_rows.h"

namespace headend {
namespace {

constexpr const char* kGroup = "SNMP (docs/snmp.md)";
// mib-2 and snmpV2, where the agent has objects of its own.
constexpr u32 kStandards[] = {2, 6};

constexpr const char* kAddress = "127.0.0.1:1161";

}  // namespace

void addSnmpFlags(CLI::App& app, Options::Snmp& options, SnmpTexts& texts) {
  app.add_option("--snmp", texts.listen,
                 std::string("open the SNMP agent, on ADDRESS:PORT of this machine (default ") + kAddress +
                     "; port 0 takes a free one and says which). Only whom --snmp-secrets names is answered")
      ->expected(0, 1)
      ->default_str(kAddress)
      ->group(kGroup);
  app.add_option(
         "--snmp-secrets", options.secrets,
         "FILE with communities and users, which its owner alone may read (chmod 600). Without it the "
         "environment variable HEADEND_SNMP_SECRETS holds the lines: read-community WORD; "
         "write-community WORD; user NAME read|write SHA-256 PASSPHRASE [AES PASSPHRASE]; "
         "trap-community WORD; trap-user NAME")
      ->type_name("FILE")
      ->group(kGroup);
  app.add_flag(
         "--snmp-write-community", options.writeCommunity,
         "let who knows the write-community set the cards: SNMPv2c sends it in the clear. Without this, "
         "only users with authentication and privacy write")
      ->group(kGroup);
  app.add_option("--snmp-trap", texts.trapSink,
                 "ADDRESS:PORT to which alarms go as notifications, by the trap-community or the trap-user")
      ->group(kGroup);
  app.add_option("--snmp-base", texts.base,
                 "OID of ten components below which the slots stand, slot 1 as .2 (default " +
                     protocol::mibBaseText(protocol::kDefaultMibBase) +
                     "; qamctl mib --base prints a MIB for another)")
      ->type_name("OID")
      ->group(kGroup);
}

void parseSnmp(const SnmpTexts& texts, Options::Snmp& options) {
  const char* want = "want ADDRESS:PORT with a port up to 65535";
  if (texts.listen) options.listen = parseAddress("--snmp", *texts.listen, want);
  if (!texts.trapSink.empty()) {
    options.trapSink = parseAddress("--snmp-trap", texts.trapSink, want);
    if (options.trapSink->second == 0) refuse("--snmp-trap", texts.trapSink, "nobody receives on port 0");
  }
  options.base.assign(protocol::kDefaultMibBase.begin(), protocol::kDefaultMibBase.end());
  try {
    if (!texts.base.empty()) options.base = protocol::parseMibBase(texts.base);
  } catch (const std::invalid_argument& e) {
    refuse("--snmp-base", texts.base, e.what());
  }
  constexpr u32 kInternet[] = {1, 3, 6, 1};
  if (std::equal(std::begin(kInternet), std::end(kInternet), options.base.begin()) &&
      std::ranges::find(kStandards, options.base[std::size(kInternet)]) != std::end(kStandards)) {
    refuse("--snmp-base", texts.base,
           "lies among the standards' objects: want one of your own, below 1.3.6.1.4.1");
  }
  const bool isUsed = options.isUsed();
  if (!isUsed && !options.secrets.empty())
    refuse("--snmp-secrets", options.secrets.string(), "needs --snmp or --snmp-trap");
  if (!isUsed && !texts.base.empty()) refuse("--snmp-base", texts.base, "needs --snmp or --snmp-trap");
  if (!options.listen && options.writeCommunity)
    throw CLI::ValidationError("--snmp-write-community", "needs --snmp");
}

}  // namespace headend
