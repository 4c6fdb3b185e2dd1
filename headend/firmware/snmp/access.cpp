#include "headend/firmware/snmp/access.h"

#include <fmt/format.h>

#include <iomanip>
#include <sstream>

#include "protocol/mib_rows.h"

namespace headend {
namespace {

constexpr const char* kSeen[] = {
    "1.3.6.1.2.1.1",       // SNMPv2-MIB, system
    "1.3.6.1.2.1.11",      // SNMPv2-MIB, snmp
    "1.3.6.1.6.3.1",       // SNMPv2-MIB, set and notification groups
    "1.3.6.1.6.3.10.2",    // SNMP-FRAMEWORK-MIB, engine
    "1.3.6.1.6.3.11.2",    // SNMP-MPD-MIB, counters
    "1.3.6.1.6.3.15.1.1",  // SNMP-USER-BASED-SM-MIB, counters
};

std::string quoted(const std::string& word) {
  std::ostringstream text;
  text << std::quoted(word);
  return text.str();
}

// Access of a group by one security model, from a level on.
std::string access(const std::string& group, const char* model, const char* level, bool writes) {
  return fmt::format(R"(access {} "" {} {} exact seen {} none)", group, model, level,
                     writes ? "set" : "none");
}

}  // namespace

std::vector<std::string> accessConfiguration(const SnmpSecrets& secrets, bool communityWrites,
                                             std::span<const u32> base) {
  const std::string cards = protocol::mibBaseText(base);
  // A group without members: the library requires an access line, even without any user.
  std::vector<std::string> lines = {access("nobody", "usm", "priv", false),
                                    fmt::format("view seen included {}", cards),
                                    fmt::format("view set included {}", cards), "view none excluded 1"};
  for (const char* subtree : kSeen) lines.push_back(fmt::format("view seen included {}", subtree));

  const auto community = [&](const std::string& name, const std::string& secret, bool writes) {
    if (secret.empty()) return;
    lines.push_back(fmt::format("com2sec {} default {}", name, quoted(secret)));
    lines.push_back(fmt::format("group {0} v2c {0}", name));
    lines.push_back(access(name, "v2c", "noauth", writes));
  };
  community("readers", secrets.readCommunity, false);
  if (communityWrites) community("writers", secrets.writeCommunity, true);

  int number = 0;
  for (const SnmpSecrets::User& user : secrets.users) {
    const std::string group = fmt::format("user{}", ++number);
    lines.push_back(fmt::format(
        "createUser {} {} {}{}", quoted(user.name), user.authProtocol, quoted(user.authPassphrase),
        user.hasPrivacy() ? fmt::format(" {} {}", user.privProtocol, quoted(user.privPassphrase)) : ""));
    lines.push_back(fmt::format("group {} usm {}", group, quoted(user.name)));
    lines.push_back(access(group, "usm", user.hasPrivacy() ? "priv" : "auth", user.writes));
  }
  return lines;
}

}  // namespace headend
