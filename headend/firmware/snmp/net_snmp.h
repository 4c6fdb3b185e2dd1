// Net-SNMP's headers. Their macros have the same names and values as constants of platform/agent.h. Code
// after this include cannot use the chassis's constants, and does not need them.
#pragma once

#include "platform/agent.h"

// The order that the library requires.
// clang-format off
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>
#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/agent/mib_modules.h>
#include <net-snmp/agent/table_tdata.h>
#include <net-snmp/library/snmpIPBaseDomain.h>
#include <net-snmp/library/snmpUDPDomain.h>
#include <net-snmp/library/snmpUDPIPv6Domain.h>
// clang-format on

#undef RONLY  // use the library's own codes
#undef RWRITE

static_assert(MAX_OID_LEN == sizeof(chassis::variable::name) / sizeof(u32));
