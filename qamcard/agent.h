// The chassis's SNMP agent: how a driver registers its table of variables, and how the agent calls it, by the
// classic agent interface. Values and names of objects are 32 bits wide. All of it is used by the agent's
// task, which serves one request at a time; registration is for start-up.
#pragma once

#include "qamcard/types.h"

QAM_BEGIN(chassis)

// Phases of a SET, in each of which the agent calls the write methods of all bindings: RESERVE1 0, RESERVE2
// 1, ACTION 2, COMMIT 3, FREE 4, UNDO 5. If a method returns an error (RFC 1905, section 3), the SET ends;
// the agent then continues with FREE, or with UNDO if an ACTION was done.
//
// `var_val` points at the value's encoding (tag, length, content) with `var_val_len` bytes of content; enough
// readable bytes follow it for the parsers below. Returns 0 or an error.
typedef int (*WriteMethod)(int action, u8* var_val, u8 var_val_type, int var_val_len, u8* statP, u32* name,
                           int name_len);

struct variable;

// Finds the requested instance of a row: the one that `name` names if `exact`, else the first after it. Null
// if there is none. Otherwise returns the value, of `*var_len` bytes, valid until the next call; stores the
// instance in `name` and `*length`, and the write method (or null) in `*write_method`.
typedef u8* (*FindVar)(struct variable* vp, u32* name, int* length, int exact, int* var_len,
                       WriteMethod* write_method);

// A row as the agent stores it and passes it to `findVar`: `name` is complete, base and suffix.
struct variable {
  u16 magic;  // for the driver
  u8 type;    // 2 INTEGER or 4 OCTET STRING, as tagged in BER (ITU-T X.690)
  u16 acl;    // 0xAAAA read-only, 0xAABA can be set
  FindVar findVar;
  u8 namelen;
  u32 name[128];
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
QAM_LAYOUT(sizeof(void*) != 4 || sizeof(struct variable4) == 32);

// Registers `count` rows of `rowSize` bytes each below a base. The agent copies them.
void mib_register(const u32* oid_base, int oid_base_len, const struct variable4* rows, int count,
                  int rowSize);

QAM_END
