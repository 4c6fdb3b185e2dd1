#include "headend/operator.h"

#include <fmt/format.h>

#include <algorithm>

namespace headend {
namespace {

constexpr std::uint16_t kFirstPort = 49200;  // inside the chassis only; one per lane
constexpr int kPatienceSeconds = 60;         // a chassis under load answers late, but it answers

}  // namespace

// Requests go from socket to socket inside the chassis; none is lost there.
class Operator::VirtualLink final : public client::Link {
 public:
  VirtualLink(Kernel& kernel, Network& network, std::uint16_t port)
      : kernel_(kernel), socket_(network, port) {}

  protocol::Reply call(protocol::Request request) override {
    request.sequence = ++sequence_;
    socket_.send({.address = 0, .port = protocol::kDefaultManagementPort}, protocol::encode(request));
    const int patience = kPatienceSeconds * kernel_.settings().tickHz;
    while (const std::optional<Datagram> datagram = socket_.receive(patience)) {
      const std::optional<protocol::Reply> reply = protocol::decodeReply(datagram->bytes);
      if (reply && reply->sequence == request.sequence) return *reply;
    }
    throw client::Error(fmt::format("the back end has not answered for {} s", kPatienceSeconds),
                        client::Error::Kind::kNoReply);
  }

  void wait(std::chrono::milliseconds time) override {
    kernel_.sleepUntil(kernel_.now() + std::chrono::nanoseconds(time).count());
  }

 private:
  Kernel& kernel_;
  UdpSocket socket_;
  u32 sequence_ = 0;
};

Operator::Operator(Kernel& kernel, Network& network, const Chassis& chassis, Log& log)
    : kernel_(kernel), network_(network), chassis_(chassis), log_(log) {}

Operator::~Operator() = default;

void Operator::start(std::vector<Job> jobs) {
  std::stable_sort(jobs.begin(), jobs.end(), [](const Job& a, const Job& b) { return a.at < b.at; });
  for (Job& job : jobs) workers_[job.lane].jobs.push_back(std::move(job));

  std::uint16_t port = kFirstPort;
  for (auto& [lane, worker] : workers_) {
    worker.link = std::make_unique<VirtualLink>(kernel_, network_, port++);
    kernel_.spawn("tOperator" + lane, kPriority, [this, w = &worker] { work(*w); });
  }
}

void Operator::work(Worker& worker) {
  for (const Job& job : worker.jobs) {
    kernel_.sleepUntil(job.at);
    while (!chassis_.slot(job.slot).initReturned) kernel_.delay(1);
    carryOut(*worker.link, job);
    ++worker.done;
  }
}

void Operator::carryOut(VirtualLink& link, const Job& job) {
  std::string error;
  try {
    job.carryOut(link);
  } catch (const std::exception& e) {
    error = e.what();
  }
  const std::string what = fmt::format("{}: {}", job.lane, job.name);
  if (!error.empty()) failures_.push_back(fmt::format("{} failed: {}", what, error));
  log_.line(kernel_.now(), "operator", error.empty() ? what + " done" : failures_.back());
}

std::vector<std::string> Operator::complaints() const {
  std::vector<std::string> all = failures_;
  for (const auto& [lane, worker] : workers_) {
    for (std::size_t i = worker.done; i < worker.jobs.size(); ++i) {
      all.push_back(fmt::format("{}: {} was not done when the run ended", lane, worker.jobs[i].name));
    }
  }
  return all;
}

}  // namespace headend
