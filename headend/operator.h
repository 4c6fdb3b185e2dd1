// The automatic operator of a run: carries out the command line's jobs as a management client does, in
// virtual time. Needs no network, so such a run is always the same.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "headend/firmware/back_end.h"
#include "headend/firmware/log.h"
#include "headend/options.h"

namespace headend {

class Operator {
 public:
  // A client is outside the chassis: load inside the chassis does not stop it from sending requests.
  static constexpr int kPriority = 50;

  Operator(Kernel& kernel, Network& network, const Chassis& chassis, Log& log)
      : kernel_(kernel), network_(network), chassis_(chassis), log_(log) {}

  // Jobs on one channel, or on one card, run one after the other. Each such lane has a task of its own, so
  // that a card that does not start does not delay other jobs. A job on no card waits for that in
  // `firstSlot`. `inputs` are those of the source cards.
  void start(std::vector<Job> jobs, int firstSlot, const client::InputCounts& inputs);

  const std::vector<Job>& jobs() const { return jobs_; }  // by time
  // Jobs that failed, and jobs not done when the run ended; empty if all jobs succeeded.
  std::vector<std::string> complaints() const;
  std::uint64_t linesPrinted() const { return linesPrinted_; }  // on stdout

 private:
  class VirtualLink;
  class VirtualCalibrationLink;
  class VirtualSession;

  void work(const std::vector<Job*>& lane, std::uint16_t port);
  void carryOut(Job& job, VirtualSession& session);

  Kernel& kernel_;
  Network& network_;
  const Chassis& chassis_;
  Log& log_;
  int firstSlot_ = 0;
  client::InputCounts inputs_;
  std::vector<Job> jobs_;
  std::uint64_t linesPrinted_ = 0;
};

}  // namespace headend
