#include "mpeg/tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <tuple>

namespace mpeg {
namespace {

constexpr std::array<const char*, PSINUM> kNames = {"PAT",   "PMT",   "SDT_C", "SDT_O",
                                                    "NIT_C", "NIT_O", "BAT",   "CAT"};
static_assert(kNames.back() != nullptr, "a name for each table");

// First and last table_id, and name.
constexpr std::tuple<u8, u8, const char*> kOtherTables[] = {
    {0x03, 0x03, "TSDT"},        {0x38, 0x3F, "DSM-CC"},
    {0x4B, 0x4D, "UNT/INT/SAT"}, {0x4E, 0x6F, "EIT"},
    {0x70, 0x70, "TDT"},         {0x71, 0x71, "RST"},
    {0x72, 0x72, "stuffing"},    {0x73, 0x73, "TOT"},
    {0x74, 0x74, "AIT"},         {0x7E, 0x7E, "DIT"},
    {0x7F, 0x7F, "SIT"},         {0x80, 0x81, "ECM"},
    {0x82, 0x8F, "EMM"},         {0xFC, 0xFC, "splice information"},
};

}  // namespace

const char* tableName(PsiType type) {
  return kNames.at(type);
}

std::string tableNames(std::string_view conjunction) {
  return fmt::format("{} {} {}", fmt::join(kNames.begin(), kNames.end() - 1, ", "), conjunction,
                     kNames.back());
}

std::optional<PsiType> tableOfName(std::string_view name) {
  const auto* found = std::ranges::find(kAllTables, name, tableName);
  return found == kAllTables.end() ? std::nullopt : std::optional(*found);
}

std::optional<PsiType> tableOfId(u8 id) {
  const auto* found = std::ranges::find(kAllTables, id, tableId);
  return found == kAllTables.end() ? std::nullopt : std::optional(*found);
}

std::string nameOfTableId(u8 id) {
  if (const auto type = tableOfId(id)) return tableName(*type);
  for (const auto& [first, last, name] : kOtherTables) {
    if (id >= first && id <= last) return name;
  }
  return fmt::format("table {:#04x}", id);
}

}  // namespace mpeg
