#include "headend/firmware/snmp/chassis_tables.h"

#include <cmath>

#include "headend/firmware/snmp/net_snmp.h"
#include "headend/firmware/snmp/notification.h"
#include "protocol/mib_rows.h"

namespace headend {

// ---- The values, in the order of the columns ----

ChassisTables::Value ChassisTables::number(long value) {
  return {ASN_INTEGER, value};
}

ChassisTables::Value ChassisTables::text(const std::string& value) {
  return {ASN_OCTET_STR, value};
}

ChassisTables::Value ChassisTables::rate(double bitsASecond) {
  return {ASN_GAUGE, std::lround(bitsASecond)};
}

ChassisTables::Value ChassisTables::age(Nanos since) const {
  return {ASN_TIMETICKS, timeTicks(sources_.kernel.now() - since)};
}

ChassisTables::Rows ChassisTables::alarms() const {
  Rows rows;
  for (const AlarmRecord& event : sources_.alarms.standing()) {
    const protocol::Alarm alarm = outward(event).alarm;
    rows.push_back({{static_cast<u32>(event.number)},
                    {number(alarm.slot + 1),
                     number(alarm.channel),
                     {ASN_UNSIGNED, long{alarm.type}},
                     text(dateAndTime(event.at)),
                     number(static_cast<long>(protocol::severityOf(alarm.type))),
                     text(alarm.enTitle),
                     text(alarm.enText),
                     text(alarm.zhTitle),
                     text(alarm.zhText),
                     text(alarm.enTrap),
                     text(alarm.zhTrap)}});
  }
  return rows;
}

ChassisTables::Rows ChassisTables::cards() const {
  Rows rows;
  for (const int slot : sources_.slots)
    rows.push_back({{static_cast<u32>(slot + 1)}, {number(protocol::mibNumber(sources_.state(slot)))}});
  return rows;
}

ChassisTables::Rows ChassisTables::sensors() const {
  Rows rows;
  for (const int slot : sources_.slots) {
    const auto& pass = sources_.checks.last(slot);
    if (!pass || !pass->temperatures) continue;
    for (u32 sensor = 0; sensor < pass->temperatures->size(); ++sensor) {
      rows.push_back(
          {{static_cast<u32>(slot + 1), sensor + 1}, {number((*pass->temperatures)[sensor]), age(pass->at)}});
    }
  }
  return rows;
}

ChassisTables::Rows ChassisTables::channels() const {
  enum Input : u8 { kUnknown = 1, kPresent = 2, kLost = 3 };
  Rows rows;
  for (const int slot : sources_.slots) {
    const auto& pass = sources_.checks.last(slot);
    for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
      const Input input = !pass ? kUnknown : (pass->lostInputs >> port & 1) != 0 ? kLost : kPresent;
      const RateMeter::Rates& rates = sources_.rates.output(slot, port);
      rows.push_back(
          {{static_cast<u32>(slot + 1), static_cast<u32>(port + 1)},
           {number(input), age(pass ? pass->at : 0), rate(rates.input), rate(rates.routed), rate(rates.psi),
            rate(rates.null), rate(rates.total), age(sources_.rates.measuredAt())}});
    }
  }
  return rows;
}

// ---- The library ----

bool ChassisTables::registerBelow(std::span<const u32> base) {
  constexpr struct {
    u32 arc;
    const char* name;
    int indexes;
    int ownIndexes;  // columns of the table itself that are its index
    int values;
    Rows (ChassisTables::*read)() const;
  } kTables[] = {{protocol::kMibAlarmTable, "qamStandingTable", 1, 1, 11, &ChassisTables::alarms},
                 {protocol::kMibCardTable, "qamCardTable", 1, 1, 1, &ChassisTables::cards},
                 {protocol::kMibSensorTable, "qamSensorTable", 2, 1, 2, &ChassisTables::sensors},
                 {protocol::kMibChannelTable, "qamChannelTable", 2, 1, 8, &ChassisTables::channels}};
  bool allTaken = true;
  for (const auto& [arc, name, indexes, ownIndexes, values, read] : kTables) {
    Table& table = tables_.emplace_back(
        Table{.owner = this, .read = read, .data = netsnmp_tdata_create_table(name, 0), .rows = {}});
    auto* columns = SNMP_MALLOC_TYPEDEF(netsnmp_table_registration_info);
    for (int i = 0; i < indexes; ++i)
      snmp_varlist_add_variable(&columns->indexes, nullptr, 0, ASN_INTEGER, nullptr, 0);
    columns->min_column = static_cast<unsigned>(ownIndexes + 1);
    columns->max_column = static_cast<unsigned>(ownIndexes + values);
    std::vector<oid> place(base.begin(), base.end());
    place.insert(place.end(), {protocol::kMibChassis, arc});
    netsnmp_handler_registration* registration = netsnmp_create_handler_registration(
        name, &ChassisTables::handle, place.data(), place.size(), HANDLER_CAN_RONLY);
    if (netsnmp_tdata_register(registration, table.data, columns) != MIB_REGISTERED_OK) {
      allTaken = false;
      continue;
    }
    netsnmp_mib_handler* first = netsnmp_create_handler("refresh", &ChassisTables::refresh);
    first->myvoid = &table;
    first->flags |= MIB_HANDLER_AUTO_NEXT;  // the library then calls the next handler
    netsnmp_inject_handler(registration, first);
  }
  return allTaken;
}

// Before the library looks for rows, the table gets those of now.
int ChassisTables::refresh(netsnmp_mib_handler* handler, netsnmp_handler_registration* /*registration*/,
                           netsnmp_agent_request_info* /*info*/, netsnmp_request_info* /*requests*/) {
  Table& table = *static_cast<Table*>(handler->myvoid);
  while (netsnmp_tdata_row* old = netsnmp_tdata_row_first(table.data))
    netsnmp_tdata_remove_and_delete_row(table.data, old);
  table.rows = (table.owner->*table.read)();
  for (Row& row : table.rows) {
    netsnmp_tdata_row* added = netsnmp_tdata_create_row();
    added->data = &row;
    for (const u32 part : row.index) {
      const long number = part;
      snmp_varlist_add_variable(&added->indexes, nullptr, 0, ASN_INTEGER, &number, sizeof number);
    }
    netsnmp_tdata_add_row(table.data, added);
  }
  return SNMP_ERR_NOERROR;
}

int ChassisTables::handle(netsnmp_mib_handler* /*handler*/, netsnmp_handler_registration* /*registration*/,
                          netsnmp_agent_request_info* info, netsnmp_request_info* requests) {
  for (netsnmp_request_info* request = requests; request != nullptr; request = request->next) {
    if (request->processed != 0) continue;
    const auto* row = static_cast<const Row*>(netsnmp_tdata_extract_entry(request));
    const netsnmp_table_request_info* place = netsnmp_extract_table_info(request);
    if (row == nullptr || place == nullptr) {
      if (info->mode == MODE_GET) netsnmp_set_request_error(info, request, SNMP_NOSUCHINSTANCE);
      continue;
    }
    const Value& value = row->values[place->colnum - place->reg_info->min_column];
    if (const auto* number = std::get_if<long>(&value.content)) {
      snmp_set_var_typed_integer(request->requestvb, value.type, *number);
    } else {
      const auto& text = std::get<std::string>(value.content);
      snmp_set_var_typed_value(request->requestvb, value.type, text.data(), text.size());
    }
  }
  return SNMP_ERR_NOERROR;
}

}  // namespace headend
