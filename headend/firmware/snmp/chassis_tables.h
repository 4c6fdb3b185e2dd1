// The tables of the chassis for the agent: active alarms, states of the cards, temperatures, inputs and
// rates. Their values are those that the chassis has; a request accesses no card.
#pragma once

#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "headend/firmware/alarm_list.h"
#include "headend/firmware/rate_meter.h"
#include "headend/firmware/status_checks.h"
#include "protocol/words.h"

// Types of the library, which are used only in the sources.
struct netsnmp_agent_request_info_s;
struct netsnmp_handler_registration_s;
struct netsnmp_mib_handler_s;
struct netsnmp_request_info_s;
struct netsnmp_tdata_s;

namespace headend {

class ChassisTables {
 public:
  struct Sources {
    const Kernel& kernel;
    const std::vector<int>& slots;  // with a card
    std::function<protocol::CardState(int slot)> state;
    const AlarmList& alarms;
    const StatusChecks& checks;
    const RateMeter& rates;
  };

  explicit ChassisTables(Sources sources) : sources_(std::move(sources)) {}

  // Registers the tables with the library, below the base of the MIB. False if it rejects one.
  bool registerBelow(std::span<const u32> base);

 private:
  struct Value {
    u8 type;
    std::variant<long, std::string> content;
  };
  struct Row {
    std::vector<u32> index;
    std::vector<Value> values;  // of the columns after the index's own
  };
  using Rows = std::vector<Row>;
  struct Table {
    ChassisTables* owner;
    Rows (ChassisTables::*read)() const;
    netsnmp_tdata_s* data;
    Rows rows;
  };

  static int handle(netsnmp_mib_handler_s* handler, netsnmp_handler_registration_s* registration,
                    netsnmp_agent_request_info_s* info, netsnmp_request_info_s* requests);
  static int refresh(netsnmp_mib_handler_s* handler, netsnmp_handler_registration_s* registration,
                     netsnmp_agent_request_info_s* info, netsnmp_request_info_s* requests);

  static Value number(long value);
  static Value text(const std::string& value);
  static Value rate(double bitsASecond);
  Value age(Nanos since) const;

  Rows alarms() const;
  Rows cards() const;
  Rows sensors() const;
  Rows channels() const;

  Sources sources_;
  std::deque<Table> tables_;  // the library keeps pointers into it
};

}  // namespace headend
