#include "headend/firmware/snmp/card_rows.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "headend/firmware/chassis.h"
#include "headend/firmware/snmp/net_snmp.h"
#include "protocol/variables.h"
#include "ui/qamMibRows.h"

namespace headend {
namespace {

constexpr std::size_t kSlotComponent = kMibBaseLength;  // the first after the base

struct Name {
  std::array<u32, MAX_OID_LEN + 1> components{};  // an instance is one component longer than its row
  int length = 0;
};

Name nameOf(const netsnmp_variable_list& binding) {
  Name name{.length = static_cast<int>(binding.name_length)};
  std::transform(binding.name, binding.name + binding.name_length, name.components.begin(),
                 [](oid component) { return static_cast<u32>(component); });
  return name;
}

void rename(netsnmp_variable_list& binding, const Name& name) {
  std::array<oid, MAX_OID_LEN + 1> components{};
  std::copy_n(name.components.begin(), name.length, components.begin());
  snmp_set_var_objid(&binding, components.data(), static_cast<std::size_t>(name.length));
}

// A value in the form that a card's write handler expects: encoded again, with room behind it for its parser.
struct Encoded {
  std::array<u8, 512> bytes{};
  int contentLength = 0;
};

std::optional<Encoded> encode(const netsnmp_variable_list& binding) {
  Encoded value;
  std::size_t room = value.bytes.size();
  const u8* end = nullptr;
  if (binding.type == ASN_INTEGER) {
    end = asn_build_int(value.bytes.data(), &room, binding.type, binding.val.integer,
                        sizeof *binding.val.integer);
    value.contentLength = value.bytes[1];
  } else {
    end = asn_build_string(value.bytes.data(), &room, binding.type, binding.val.string, binding.val_len);
    value.contentLength = static_cast<int>(binding.val_len);
  }
  return end == nullptr ? std::nullopt : std::optional(value);
}

// The handlers use the SNMPv1 error for a name that cannot be written.
int outwardError(int result) {
  if (result < 0) return SNMP_ERR_GENERR;
  return result == SNMP_ERR_NOSUCHNAME ? SNMP_ERR_NOTWRITABLE : result;
}

// What `qamctl var set` refuses, no other client gets past either: the card takes what it is given. A row
// without bounds is left to its card's handler.
int checkValue(const chassis::variable& row, u8 cardType, const netsnmp_variable_list& binding) {
  if (binding.type != row.type) return SNMP_ERR_WRONGTYPE;
  if (row.type != ASN_INTEGER) return SNMP_ERR_NOERROR;
  const long value = *binding.val.integer;
  if (value != static_cast<i32>(value)) return SNMP_ERR_WRONGLENGTH;
  const protocol::CardVariable* variable = protocol::findCardVariable(cardType, row.magic);
  return variable == nullptr || protocol::isPossible(*variable, value) ? SNMP_ERR_NOERROR
                                                                       : SNMP_ERR_WRONGVALUE;
}

// Whether a request means this row although its card does not run: by its instance, or on the way through the
// card's own objects. A GETNEXT from another object skips the card and reaches the next one that runs.
bool asksFor(const chassis::variable& row, const Name& name, bool exact) {
  Name instance{.length = row.namelen + 1};
  std::copy_n(row.name, row.namelen, instance.components.begin());
  const int order =
      chassis::compare(name.components.data(), name.length, instance.components.data(), instance.length);
  if (exact) return order == 0;
  return order < 0 && std::equal(row.name, row.name + kSlotComponent + 1, name.components.begin());
}

}  // namespace

// ---- Registration ----

void CardRows::add(const u32* base, int baseLength, const chassis::variable4* rows, int count, int rowSize) {
  const auto* bytes = reinterpret_cast<const std::byte*>(rows);
  for (int i = 0; i < count; ++i) {
    chassis::variable4 row{};
    std::memcpy(&row, bytes + static_cast<std::ptrdiff_t>(i) * rowSize,
                std::min<std::size_t>(static_cast<std::size_t>(rowSize), sizeof row));
    chassis::variable whole{.magic = row.magic,
                            .type = row.type,
                            .acl = row.acl,
                            .findVar = row.findVar,
                            .namelen = static_cast<u8>(baseLength + row.namelen),
                            .name = {}};
    std::copy_n(row.name, row.namelen, std::copy_n(base, baseLength, whole.name));
    rows_.push_back({.owner = this, .variable = whole});
  }
}

bool CardRows::makeKnown() {
  bool allTaken = true;
  for (; known_ < rows_.size(); ++known_) {
    Row& row = rows_[known_];
    std::array<oid, MAX_OID_LEN> name{};
    std::copy_n(row.variable.name, row.variable.namelen, name.begin());
    netsnmp_handler_registration* registration = netsnmp_create_handler_registration(
        "card", &CardRows::handle, name.data(), row.variable.namelen,
        row.variable.acl == chassis::RWRITE ? HANDLER_CAN_RWRITE : HANDLER_CAN_RONLY);
    if (registration != nullptr) registration->handler->myvoid = &row;
    allTaken =
        registration != nullptr && netsnmp_register_handler(registration) == MIB_REGISTERED_OK && allTaken;
  }
  return allTaken;
}

// ---- Requests ----

const chassis::card* CardRows::cardOf(const Row& row) const {
  return cardOf_(static_cast<int>(row.variable.name[kSlotComponent] - kMibFirstSlot));
}

int CardRows::handle(netsnmp_mib_handler* handler, netsnmp_handler_registration* /*registration*/,
                     netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  Row& row = *static_cast<Row*>(handler->myvoid);
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    if (request->processed != 0) continue;
    int result = SNMP_ERR_NOERROR;
    if (info->mode == MODE_GET || info->mode == MODE_GETNEXT) {
      result = row.owner->read(row, *request, info->mode == MODE_GET);
    } else {
      if (info->mode == MODE_SET_RESERVE1) result = row.owner->prepareWrite(row, *request);
      if (result == SNMP_ERR_NOERROR && row.write != nullptr) result = carryOut(row, *request, info->mode);
    }
    if (result != SNMP_ERR_NOERROR) netsnmp_set_request_error(info, request, result);
  }
  if (info->mode == MODE_SET_COMMIT || info->mode == MODE_SET_FREE || info->mode == MODE_SET_UNDO)
    row.write = nullptr;
  return SNMP_ERR_NOERROR;
}

// Without a value the library answers noSuchInstance, or continues with the next row.
int CardRows::read(Row& row, netsnmp_request_info& request, bool exact) const {
  chassis::variable& variable = row.variable;
  netsnmp_variable_list& binding = *request.requestvb;
  Name name = nameOf(binding);
  if (cardOf(row) == nullptr)
    return asksFor(variable, name, exact) ? SNMP_ERR_RESOURCEUNAVAILABLE : SNMP_ERR_NOERROR;
  const ReadingTurn turn;
  int length = 0;
  chassis::WriteMethod write = nullptr;
  const u8* value =
      variable.findVar(&variable, name.components.data(), &name.length, exact ? 1 : 0, &length, &write);
  if (value == nullptr) return SNMP_ERR_NOERROR;
  rename(binding, name);
  if (variable.type == ASN_INTEGER) {
    i32 number = 0;
    std::memcpy(&number, value, sizeof number);
    snmp_set_var_typed_integer(&binding, ASN_INTEGER, number);
  } else {
    snmp_set_var_typed_value(&binding, variable.type, value, static_cast<std::size_t>(length));
  }
  return SNMP_ERR_NOERROR;
}

// Whether the row can be written at all, and this value be its; and who writes it.
int CardRows::prepareWrite(Row& row, const netsnmp_request_info& request) const {
  row.write = nullptr;
  const netsnmp_variable_list& binding = *request.requestvb;
  Name name = nameOf(binding);
  const chassis::card* card = cardOf(row);
  if (card == nullptr) return SNMP_ERR_RESOURCEUNAVAILABLE;
  chassis::WriteMethod write = nullptr;
  {
    const ReadingTurn turn;
    int length = 0;
    if (row.variable.findVar(&row.variable, name.components.data(), &name.length, 1, &length, &write) ==
        nullptr)
      return SNMP_ERR_NOCREATION;
  }
  if (write == nullptr) return SNMP_ERR_NOTWRITABLE;
  const int result = checkValue(row.variable, card->cardType, binding);
  if (result == SNMP_ERR_NOERROR) row.write = write;
  return result;
}

// One phase of a SET, for the card's write method.
int CardRows::carryOut(const Row& row, const netsnmp_request_info& request, int phase) {
  const netsnmp_variable_list& binding = *request.requestvb;
  std::optional<Encoded> value = encode(binding);
  if (!value) return SNMP_ERR_WRONGLENGTH;
  Name name = nameOf(binding);
  return outwardError(row.write(phase, value->bytes.data(), binding.type, value->contentLength, nullptr,
                                name.components.data(), name.length));
}

}  // namespace headend
