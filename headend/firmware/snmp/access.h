// Access rights in the syntax of Net-SNMP: the configuration lines with which the agent starts.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "headend/firmware/snmp/secrets.h"
#include "platform/types.h"

namespace headend {

// The most that can be read: the system and SNMP groups, the engine's objects and counters, the cards.
// Writers may set the cards' objects. Only the configured users and communities have access.
std::vector<std::string> accessConfiguration(const SnmpSecrets& secrets, bool communityWrites,
                                             std::span<const u32> base);

}  // namespace headend
