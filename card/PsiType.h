// The tables that a card carries, in the order of their numbers, with table_id and PID (ISO/IEC 13818-1, EN
// 300 468). C is the actual stream or network, O another.
#pragma once

#include "platform/numbers.h"

enum PsiType : u8 { PAT, PMT, SDT_C, SDT_O, NIT_C, NIT_O, BAT, CAT, PSINUM };

struct PsiTable {
  u8 table_id;
  u16 pid;               // kNullPid: on the PIDs that a PAT names
  const char* pidCheck;  // text of the failed check for another PID
};
inline constexpr PsiTable kPsiTables[PSINUM] = {
    {0x00, 0x0000, "pid == 0"},     // PAT
    {0x02, kNullPid, nullptr},      // PMT
    {0x42, 0x0011, "pid == 0x11"},  // SDT_C
    {0x46, 0x0011, "pid == 0x11"},  // SDT_O
    {0x40, 0x0010, "pid == 0x10"},  // NIT_C
    {0x41, 0x0010, "pid == 0x10"},  // NIT_O
    {0x4A, 0x0011, "pid == 0x11"},  // BAT
    {0x01, 0x0001, "pid == 1"},     // CAT
};
