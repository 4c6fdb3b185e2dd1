// The automatic operator of a run: carries out the command line's jobs through the management datagrams, like
// a management client. Needs no network, so such a run is always the same.
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
  // A client is outside the chassis: load inside the chassis does not stop it from sending requests.
  static constexpr int kPriority = 50;

  struct Job {
    std::string lane;  // jobs of one lane run one after the other
    int slot = 0;
    std::string name;                                  // name for messages
    Nanos at = 0;                                      // at this time, or as soon as the card runs
    std::function<void(client::Link& link)> carryOut;  // throws if it fails
  };

  Operator(Kernel& kernel, Network& network, const Chassis& chassis, Log& log);
  ~Operator();

  // Each lane has its own task, so that a card that does not start does not delay other jobs.
  void start(std::vector<Job> jobs);

  // Jobs that failed, and jobs not done when the run ended; empty if all jobs succeeded.
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
