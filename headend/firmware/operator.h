// The operator of a run without one: uploads what the command line names, through the management datagrams,
// as a management client would. Needs no network, so such a run is the same each time.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/psi_upload.h"
#include "headend/firmware/back_end.h"

namespace headend {

class Operator {
 public:
  // A client is outside the chassis: no load in there keeps it from asking.
  static constexpr int kPriority = 50;

  struct Job {
    client::Channel channel;
    std::string name;                        // what is said of it: the file, or "intervals"
    std::optional<client::UploadPlan> plan;  // none: intervals alone
    client::Intervals intervals;
    Nanos at = 0;  // at this time, or as soon as the card runs
  };

  Operator(Kernel& kernel, Network& network, const Chassis& chassis, Log& log);
  ~Operator();

  // Each channel has a task of its own, so that a card that does not start holds up nobody else's jobs.
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
  std::map<client::Channel, Worker> workers_;
  std::vector<std::string> failures_;
};

}  // namespace headend
