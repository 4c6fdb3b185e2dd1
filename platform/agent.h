// The chassis's SNMP agent: how a driver registers its table of variables, and how the agent calls it, by the
// classic agent interface. Values and names of objects are 32 bits wide. All of it is used by the agent's
// task, which serves one request at a time; registration is for start-up.
#pragma once

#include "platform/types.h"

namespace chassis {

inline constexpr int MAX_OID_LEN = 128;  // components of a name (RFC 1905, section 3)

// Types of values, as tagged in BER (ITU-T X.690), and what a row allows.
inline constexpr u8 ASN_INTEGER = 2;
inline constexpr u8 ASN_OCTET_STR = 4;
inline constexpr u16 RONLY = 0xAAAA;
inline constexpr u16 RWRITE = 0xAABA;

// Phases of a SET, in each of which the agent calls the write methods of all bindings. If a method returns an
// error, the SET ends; the agent then continues with FREE, or with UNDO if an ACTION was done.
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

// `var_val` points at the value's encoding (tag, length, content) with `var_val_len` bytes of content; enough
// readable bytes follow it for the parsers below. Returns 0 or an error.
using WriteMethod = int (*)(int action, u8* var_val, u8 var_val_type, int var_val_len, u8* statP, u32* name,
                            int name_len);

struct variable;

// Finds the requested instance of a row: the one that `name` names if `exact`, else the first after it. Null
// if there is none. Otherwise returns the value, of `*var_len` bytes, valid until the next call; stores the
// instance in `name` and `*length`, and the write method (or null) in `*write_method`.
using FindVar = u8* (*)(variable* vp, u32* name, int* length, int exact, int* var_len,
                        WriteMethod* write_method);

// A row as the agent stores it and passes it to `findVar`: `name` is complete, base and suffix.
struct variable {
  u16 magic;  // for the driver
  u8 type;
  u16 acl;
  FindVar findVar;
  u8 namelen;
  u32 name[MAX_OID_LEN];
};

// A row as a driver registers it: `name` is the suffix after a base of the agent.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding): the agent's layout
struct variable4 {
  u16 magic;
  u8 type;
  u16 acl;
  FindVar findVar;
  u8 namelen;
  u32 name[4];
};
static_assert(sizeof(void*) != 4 || sizeof(variable4) == 32);

extern "C" {

// Registers `count` rows of `rowSize` bytes each below a base. The agent copies them.
void mib_register(const u32* oid_base, int oid_base_len, const variable4* rows, int count, int rowSize);

}  // extern "C"

#ifndef QAM_VIRTUAL_BUS
namespace firmware {
extern "C" {
int compare(const u32* name1, int length1, const u32* name2, int length2);
u8* asn_parse_string(u8* data, int* datalength, u8* type, u8* string, int* strlength);
u8* asn_parse_unsigned_int(u8* data, int* datalength, u8* type, u32* number, int numberSize);
}
}  // namespace firmware

inline int compare(const u32* name1, int length1, const u32* name2, int length2) {
  return firmware::compare(name1, length1, name2, length2);
}
inline u8* asn_parse_string(u8* data, int* datalength, u8* type, u8* string, int* strlength) {
  return firmware::asn_parse_string(data, datalength, type, string, strlength);
}
inline u8* asn_parse_unsigned_int(u8* data, int* datalength, u8* type, u32* number, int numberSize) {
  return firmware::asn_parse_unsigned_int(data, datalength, type, number, numberSize);
}
#else
// -1, 0 or 1: the order of two names.
int compare(const u32* name1, int length1, const u32* name2, int length2);

// Parse the value at `data` within `*datalength` bytes, and set `*datalength` to the bytes left. Return the
// byte after the value, or null if it is invalid or too large: a text of at most `*strlength` bytes, which is
// set to its length; or a number of `numberSize` bytes.
u8* asn_parse_string(u8* data, int* datalength, u8* type, u8* string, int* strlength);
u8* asn_parse_unsigned_int(u8* data, int* datalength, u8* type, u32* number, int numberSize);
#endif

}  // namespace chassis
