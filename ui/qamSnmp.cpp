#include "ui/qamSnmp.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>

#include "card/qamVar.h"
#include "platform/address_word.h"
#include "platform/chassis.h"
#include "ui/qamMibRows.h"

using chassis::ASN_INTEGER;
using chassis::ASN_OCTET_STR;
using chassis::RONLY;
using chassis::RWRITE;
using chassis::variable4;

namespace {

// An instance's name: the base, whose last component is the slot, a row's suffix, 0.
constexpr int kSlotComponent = kMibBaseLength;
constexpr int kSuffix = kSlotComponent + 1;
constexpr int kSuffixLength = 4;
constexpr u32 kNoVariable = 0xFFFFFFFF;

// Rows as they are registered; `magic` is the number of the card's variable.
constexpr auto makeRows() {
  std::array<variable4, std::size(kMibRows)> rows{};
  std::transform(std::begin(kMibRows), std::end(kMibRows), rows.begin(), [](const QamMibRow& row) {
    variable4 made = {.magic = static_cast<u16>(row.variable),
                      .type = row.isText ? ASN_OCTET_STR : ASN_INTEGER,
                      .acl = row.writable ? RWRITE : RONLY,
                      .findVar = qam_var_custom,
                      .namelen = kSuffixLength,
                      .name = {}};
    std::copy_n(row.suffix, kSuffixLength, made.name);
    return made;
  });
  return rows;
}
constexpr auto qamVariable = makeRows();

bool isSlot(u32 component) {
  if (component >= kMibFirstSlot && component < kMibFirstSlot + MAX_BOARD_NUM) return true;
  chassis::DebugPrint("slotNo is %d, snmp error!\n", static_cast<int>(component));
  return false;
}

}  // namespace

u8 qam_strtmp[450];

void qamMibRegister(const u32* oid_base, int oid_base_len) {
  chassis::mib_register(oid_base, oid_base_len, qamVariable.data(), static_cast<int>(qamVariable.size()),
                        sizeof(variable4));
}

u8* qam_var_custom(chassis::variable* vp, u32* name, int* length, int exact, int* var_len,
                   chassis::WriteMethod* write_method) {
  u32 instance[chassis::MAX_OID_LEN + 1];
  const int instanceLength = vp->namelen + 1;
  std::copy_n(vp->name, vp->namelen, instance);
  instance[vp->namelen] = 0;  // the only instance of a scalar
  const int order = chassis::compare(name, *length, instance, instanceLength);
  if (exact != 0 ? order != 0 : order >= 0) return nullptr;

  std::copy_n(instance, instanceLength, name);
  *length = instanceLength;
  *var_len = 0;
  *write_method = vp->acl == RWRITE ? qam_write_custom : nullptr;

  const u32 component = vp->name[kSlotComponent];
  if (!isSlot(component)) return nullptr;
  const u8 slotNo = static_cast<u8>(component - kMibFirstSlot);
  static u32 value;
  value = QamGetVar(slotNo, 0, vp->magic, nullptr);
  if (value == kNoVariable) {
    chassis::DebugPrint("get in4 vid %d of slot%d port%d error!\r\n", vp->magic, slotNo, 0);
    return nullptr;
  }
  if (vp->type == ASN_INTEGER) {
    *var_len = sizeof value;
    return reinterpret_cast<u8*>(&value);
  }
  u8* string = os::wordAddress<u8>(value);
  if (string != nullptr) *var_len = static_cast<int>(std::strlen(reinterpret_cast<const char*>(string)));
  return string;
}

// The row's type is not checked: the agent that calls this has refused a value of another type.
int qam_write_custom(int action, u8* var_val, u8 var_val_type, int var_val_len, u8* /*statP*/, u32* name,
                     int name_len) {
  if (var_val_type != ASN_INTEGER && var_val_type != ASN_OCTET_STR) {
    chassis::DebugPrint("type disagreement!\r\n");
    return chassis::SNMP_ERR_WRONGTYPE;
  }
  if (var_val_type == ASN_INTEGER && (var_val_len < 0 || var_val_len > static_cast<int>(sizeof(u32)))) {
    return chassis::SNMP_ERR_WRONGLENGTH;
  }
  const u32 vid = qam_remap(name, name_len);
  if (vid == kNoVariable) return chassis::SNMP_ERR_NOSUCHNAME;

  int room = sizeof qam_strtmp;
  u32 value = 0;
  u8* end = nullptr;
  if (var_val_type == ASN_OCTET_STR) {
    int size = sizeof qam_strtmp - 1;
    std::memset(qam_strtmp, 0, sizeof qam_strtmp - 1);
    end = chassis::asn_parse_string(var_val, &room, &var_val_type, qam_strtmp, &size);
    value = os::addressWord(qam_strtmp);
  } else {
    end = chassis::asn_parse_unsigned_int(var_val, &room, &var_val_type, &value, sizeof value);
  }
  if (end == nullptr) return chassis::SNMP_ERR_WRONGVALUE;
  if (action != chassis::ACTION) return chassis::SNMP_ERR_NOERROR;

  if (!isSlot(name[kSlotComponent])) return -2;
  const int result = QamSetVar(static_cast<u8>(name[kSlotComponent] - kMibFirstSlot), 0, vid, value);
  if (result >= 0) return chassis::SNMP_ERR_NOERROR;
  if (result == -2) return chassis::SNMP_ERR_NOSUCHNAME;
  return result == -1 ? chassis::SNMP_ERR_WRONGVALUE : chassis::SNMP_ERR_COMMITFAILED;
}

u32 qam_remap(const u32* name, int name_len) {
  if (name_len < kSuffix + kSuffixLength) return kNoVariable;
  const variable4* found = std::find_if(
      std::begin(qamVariable), std::end(qamVariable),
      [name](const variable4& r) { return std::equal(r.name, r.name + r.namelen, name + kSuffix); });
  if (found != std::end(qamVariable)) return found->magic;
  chassis::DebugPrint("in4_reMap Error .");
  for (int i = 0; i < name_len; ++i) chassis::DebugPrint("%u.", static_cast<unsigned>(name[i]));
  chassis::DebugPrint("is not exist in the mib\r\n");
  return kNoVariable;
}
