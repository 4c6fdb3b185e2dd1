// The rows that cards have registered with the agent, and how a request reaches one: as the classic agent
// would call it, whatever the library's own way is. The agent's task only, but for `add`.
#pragma once

#include <deque>
#include <functional>
#include <vector>

#include "platform/agent.h"

// The library's, which stay in the sources.
struct netsnmp_agent_request_info_s;
struct netsnmp_handler_registration_s;
struct netsnmp_mib_handler_s;
struct netsnmp_request_info_s;

namespace headend {

class CardRows {
 public:
  // `runs` tells whether a slot's card has a configuration: without one nothing of it is read or written.
  explicit CardRows(std::function<bool(int slot)> runs) : runs_(std::move(runs)) {}

  // Takes rows that a card hands over; the library learns of them in the agent's task.
  void add(const u32* base, int baseLength, const chassis::variable4* rows, int count, int rowSize);
  bool hasNew() const { return known_ < rows_.size(); }
  bool makeKnown();  // to the library; false when it does not take them all

 private:
  struct Row {
    CardRows* owner;
    chassis::variable variable;
    chassis::WriteMethod write = nullptr;  // of the SET that is going on
  };

  static int handle(netsnmp_mib_handler_s* handler, netsnmp_handler_registration_s* registration,
                    netsnmp_agent_request_info_s* info, netsnmp_request_info_s* requests);
  int read(Row& row, netsnmp_request_info_s& request, bool exact) const;
  int prepareWrite(Row& row, const netsnmp_request_info_s& request) const;
  static int carryOut(const Row& row, const netsnmp_request_info_s& request, int phase);
  bool runs(const Row& row) const;

  std::function<bool(int slot)> runs_;
  std::deque<Row> rows_;  // the library points into it
  std::size_t known_ = 0;
};

}  // namespace headend
