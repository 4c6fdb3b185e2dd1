// The chassis's SNMP agent as the module's sources see it: qamcard/agent.h in namespace `chassis`, and names
// for its values.
#pragma once

#include "platform/types.h"
#include "qamcard/agent.h"
#ifndef QAM_VIRTUAL_BUS
#include "qamcard/plain_names.h"
#endif

namespace chassis {

inline constexpr int MAX_OID_LEN = 128;  // components of a name (RFC 1905, section 3)
static_assert(sizeof(variable::name) == MAX_OID_LEN * sizeof(u32));

// Types of values, as tagged in BER (ITU-T X.690), and what a row allows.
inline constexpr u8 ASN_INTEGER = 2;
inline constexpr u8 ASN_OCTET_STR = 4;
inline constexpr u16 RONLY = 0xAAAA;
inline constexpr u16 RWRITE = 0xAABA;

// Phases of a SET.
enum SetPhase : int { RESERVE1 = 0, RESERVE2 = 1, ACTION = 2, COMMIT = 3, FREE = 4, UNDO = 5 };

// Errors of a SET (RFC 1905, section 3).
enum SnmpError : int {
  SNMP_ERR_NOERROR = 0,
  SNMP_ERR_NOSUCHNAME = 2,
  SNMP_ERR_WRONGTYPE = 7,
  SNMP_ERR_WRONGLENGTH = 8,
  SNMP_ERR_WRONGVALUE = 10,
  SNMP_ERR_COMMITFAILED = 14,
};

#ifdef QAM_VIRTUAL_BUS
// As described in qamcard/plain_names.h. C++ functions, because a library of the host has others of these
// names.
int compare(const u32* name1, int length1, const u32* name2, int length2);
u8* asn_parse_string(u8* data, int* datalength, u8* type, u8* string, int* strlength);
u8* asn_parse_unsigned_int(u8* data, int* datalength, u8* type, u32* number, int numberSize);
#else
using firmware::asn_parse_string;
using firmware::asn_parse_unsigned_int;
using firmware::compare;
#endif

}  // namespace chassis
