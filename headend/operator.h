// The operator of a run without one: does what the command line asks for, through the management datagrams,
// as a management client would. Needs no network, so such a run is the same each time.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "client/link.h"
#include "headend/firmware/back_end.h"

namespace headend {

class Operator {
 public:
  // A client is outside the chassis: no load in there keeps it from asking.
  static constexpr int kPriority = 50;

  struct Job {
    std::string lane;  // jobs of one lane are done one after the other
    int slot = 0;
    std::string name;                                  // what is said of it
    Nanos at = 0;                                      // at this time, or as soon as the card runs
    std::function<void(client::Link& link)> carryOut;  // throws where it fails
  };

  Operator(Kernel& kernel, Network& network, const Chassis& chassis, Log& log);
  ~Operator();

  // Each lane has a task of its own, so that a card that does not start holds up nobody else's jobs.
  void start(std::vector<Job> jobs);

  // Jobs that failed, and those that were not done when the run ended; empty when all is well.
  std::vector<std::string> complaints() const;

 private:
  class VirtualLink;
  struct Worker {
    std::unique_ptr<VirtualLink> link;
    std::vector<Job> jobs;  // by time
    std::size_t done = 0;
  };

  void work(Worker& worker);
  void carryOut(VirtualLink& link, const Job& job);

  Kernel& kernel_;
  Network& network_;
  const Chassis& chassis_;
  Log& log_;
  std::map<std::string, Worker> workers_;  // by lane
  std::vector<std::string> failures_;
};

}  // namespace headend
