// The chassis's back-end registry: tables of variables for management software to read and write, and the
// header of each request. Requests are served one at a time, by one task.
#pragma once

#include "qamcard/types.h"

QAM_BEGIN(chassis)

// The header of a request, parsed to host byte order.
struct bc_vhdr_t {
  u16 paraType;  // variable id
  u16 cardNo;    // slot; only the low 8 bits are used
  u32 portNo;    // output port; only the low 8 bits are used
  u16 vLength;   // bytes of data: of the request at the call, of the reply at the return from a read
  u16 reLength;  // a read's request data begins reLength + 12 bytes after the start of this header
  u32 reserved;
};
typedef struct bc_vhdr_t bc_vhdr_t;
QAM_LAYOUT(offsetof(struct bc_vhdr_t, cardNo) == 2 && offsetof(struct bc_vhdr_t, portNo) == 4);
QAM_LAYOUT(offsetof(struct bc_vhdr_t, vLength) == 8 && offsetof(struct bc_vhdr_t, reLength) == 10);
QAM_LAYOUT(offsetof(struct bc_vhdr_t, reserved) == 12 && sizeof(struct bc_vhdr_t) == 16);

typedef int (*bc_routine)(struct bc_vhdr_t* pv, void* var);

// One variable; a table ends with a row of zeros.
struct bc_var {
  u32 vid;
  u32 vnum;
  u8 vtype;
  bc_routine vrd;
  bc_routine vwr;
  int (*vfind)(int, int);
};
typedef struct bc_var bc_var;

enum {
  QAM_REPLY_SIZE = 1436  // bytes that the reply buffer of a read needs
};

// Requests whose (slot << 24 | port << 16) is in [base, limit) go to `table`. The registry keeps the
// pointer to the table and copies the text.
int bc_vars_register(u32 base, u32 limit, const struct bc_var* table, const char* text);

QAM_END
