// The rows that cards have registered with the agent, and the calls of their handlers, which follow the
// classic agent interface. Used only by the agent's task, except `add`.
#pragma once

#include <deque>
#include <functional>
#include <vector>

#include "platform/agent.h"
#include "platform/chassis.h"

// Types of the library, which are used only in the sources.
struct netsnmp_agent_request_info_s;
struct netsnmp_handler_registration_s;
struct netsnmp_mib_handler_s;
struct netsnmp_request_info_s;

namespace headend {

class CardRows {
 public:
  // Gives the card of a slot, or null if it does not run: then none of its rows is read or written.
  using CardOf = std::function<const chassis::card*(int slot)>;
  explicit CardRows(CardOf cardOf) : cardOf_(std::move(cardOf)) {}

  // Stores rows that a card registers; the agent's task adds them to the library later.
  void add(const u32* base, int baseLength, const chassis::variable4* rows, int count, int rowSize);
  bool hasNew() const { return known_ < rows_.size(); }
  bool makeKnown();  // registers with the library; false if it rejects a row

 private:
  struct Row {
    CardRows* owner;
    chassis::variable variable;
    chassis::WriteMethod write = nullptr;  // of the current SET
  };

  static int handle(netsnmp_mib_handler_s* handler, netsnmp_handler_registration_s* registration,
                    netsnmp_agent_request_info_s* info, netsnmp_request_info_s* requests);
  int read(Row& row, netsnmp_request_info_s& request, bool exact) const;
  int prepareWrite(Row& row, const netsnmp_request_info_s& request) const;
  static int carryOut(const Row& row, const netsnmp_request_info_s& request, int phase);
  const chassis::card* cardOf(const Row& row) const;

  CardOf cardOf_;
  std::deque<Row> rows_;  // the library keeps pointers into it
  std::size_t known_ = 0;
};

}  // namespace headend
