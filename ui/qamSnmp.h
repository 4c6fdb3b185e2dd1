// The card's part of the chassis's SNMP agent: the scalars of ui/qamMibRows.h below the base of its slot. A
// base has 11 components; the last is the slot, from 2 on.
#pragma once

#include "platform/agent.h"
#include "platform/types.h"

extern u8 qam_strtmp[450];  // the last text written, up to 449 bytes and a NUL

extern "C" {

// Registers the rows below the base of a slot; `mibRegister` of the descriptor. Start-up only.
void qamMibRegister(const u32* oid_base, int oid_base_len);

// Read handler and write handler of every row, as defined by the agent's interface (platform/agent.h). The
// agent's task only; the value is valid until the next call. A write is applied in ACTION and checked in
// every phase. It also accepts a text for a number, and would then set the text's address: the agent must
// compare types first.
u8* qam_var_custom(chassis::variable* vp, u32* name, int* length, int exact, int* var_len,
                   chassis::WriteMethod* write_method);
int qam_write_custom(int action, u8* var_val, u8 var_val_type, int var_val_len, u8* statP, u32* name,
                     int name_len);

// The number of the variable for an instance's name; 0xFFFFFFFF for none.
u32 qam_remap(const u32* name, int name_len);
}
