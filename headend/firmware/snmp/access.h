// Who may see and change what, in Net-SNMP's own words: the lines of configuration that the agent starts
// with.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "headend/firmware/snmp/secrets.h"
#include "platform/types.h"

namespace headend {

// What anybody may see at most: the system and SNMP groups, the engine's objects and counters, the cards.
// What writers may set: the cards' objects. Users and communities come to that, and nobody else.
std::vector<std::string> accessConfiguration(const SnmpSecrets& secrets, bool communityWrites,
                                             std::span<const u32> base);

}  // namespace headend
