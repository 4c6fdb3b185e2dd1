// Net-SNMP's headers. Their macros have names of platform/agent.h, with the same values: what is included
// after this cannot name those of the chassis, and need not.
#pragma once

#include "platform/agent.h"

// The library's order.
// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/mib_modules.h>
#include <net-snmp/library/snmpIPBaseDomain.h>
#include <net-snmp/library/snmpUDPDomain.h>
// clang-format on

#undef RONLY  // the library's own codes
#undef RWRITE

static_assert(MAX_OID_LEN == sizeof(chassis::variable::name) / sizeof(u32));
