// Names of tables (ISO/IEC 13818-1, EN 300 468): of the eight that a card carries, and of all others that a
// stream may have.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <string_view>

#include "card/PsiType.h"

namespace mpeg {

// Also the upload order.
inline constexpr std::array kAllTables = {PAT, PMT, SDT_C, SDT_O, NIT_C, NIT_O, BAT, CAT};
static_assert(kAllTables.size() == PSINUM);

inline constexpr u16 kEitPid = 0x12;
inline constexpr u16 kTimePid = 0x14;       // of TDT and TOT
inline constexpr u16 kFirstFreePid = 0x20;  // lower PIDs are for tables
constexpr bool isReservedPid(u16 pid) {
  return pid < kFirstFreePid || pid >= kNullPid;
}

const char* tableName(PsiType type);  // "PAT", "SDT_C", ...
// The eight names as a list whose last two are joined by "and" or "or".
std::string tableNames(std::string_view conjunction);
constexpr u8 tableId(PsiType type) {
  return kPsiTables[type].table_id;
}
// The PID of the table; nullopt for the PMT, whose PIDs are in the PAT.
constexpr std::optional<u16> tablePid(PsiType type) {
  return kPsiTables[type].pid == kNullPid ? std::nullopt : std::optional(kPsiTables[type].pid);
}

// nullopt for a name (in capitals, as above) or a table_id that is not one of the eight.
std::optional<PsiType> tableOfName(std::string_view name);
std::optional<PsiType> tableOfId(u8 tableId);

// A name for any table_id: one of the eight above, "EIT", "TDT", ..., or "table 0x80" if it has no standard
// name.
std::string nameOfTableId(u8 tableId);

}  // namespace mpeg
