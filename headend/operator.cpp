#include "headend/operator.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

namespace headend {
namespace {

constexpr std::uint16_t kFirstPort = 49200;  // inside the chassis only; two per lane
constexpr int kPatienceSeconds = 60;         // a chassis under load answers late, but it answers

std::string laneOf(const Job& job) {
  if (job.target().channel) return protocol::channelName(*job.target().channel);
  return job.target().slot ? fmt::format("{}", *job.target().slot + 1) : "";
}

void sleep(Kernel& kernel, std::chrono::milliseconds time) {
  kernel.sleepUntil(kernel.now() + std::chrono::nanoseconds(time).count());
}

}  // namespace

// Requests go from socket to socket inside the chassis; none is lost there.
class Operator::VirtualLink final : public client::Link {
 public:
  VirtualLink(Operator& owner, std::uint16_t port) : kernel_(owner.kernel_), socket_(owner.network_, port) {}

  protocol::Reply exchange(protocol::Request request) override {
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
  void wait(std::chrono::milliseconds time) override { sleep(kernel_, time); }

 private:
  Kernel& kernel_;
  UdpSocket socket_;
  u32 sequence_ = 0;
};

class Operator::VirtualCalibrationLink final : public client::CalibrationLink {
 public:
  VirtualCalibrationLink(Operator& owner, std::uint16_t port)
      : kernel_(owner.kernel_), socket_(owner.network_, port) {}

  void begin() override {
    while (!socket_.waiting().empty()) socket_.receive(0);
  }
  void send(std::span<const u8> datagram) override {
    socket_.send({.address = 0, .port = client::kDefaultCalibrationPort}, {datagram.begin(), datagram.end()});
  }
  std::optional<client::Bytes> receive(std::chrono::nanoseconds time) override {
    const Nanos tick = kSecond / kernel_.settings().tickHz;
    auto datagram = socket_.receive(static_cast<int>((time.count() + tick - 1) / tick));
    return datagram ? std::optional(std::move(datagram->bytes)) : std::nullopt;
  }
  void wait(std::chrono::milliseconds time) override { sleep(kernel_, time); }
  std::chrono::nanoseconds now() const override { return std::chrono::nanoseconds(kernel_.now()); }
  client::Error failure(const std::string& what) const override {
    return client::Error("the calibration service: " + what, client::Error::Kind::kNoReply);
  }

 private:
  Kernel& kernel_;
  UdpSocket socket_;
};

class Operator::VirtualSession final : public commands::Session {
 public:
  VirtualSession(Operator& owner, std::uint16_t port)
      : owner_(owner), link_(owner, port), calibration_(owner, static_cast<std::uint16_t>(port + 1)) {}

  void begin(std::string& output) { output_ = &output; }

  client::Link& link() override { return link_; }
  client::CalibrationLink& calibration() override { return calibration_; }
  std::string chassis() const override { return "this chassis"; }
  void print(const std::string& text) override { *output_ += text; }
  void note(const std::string& text) override { owner_.log_.line(owner_.kernel_.now(), "operator", text); }
  std::filesystem::path rescueFolder() const override { return {}; }
  std::optional<client::InputCounts> inputs() override { return owner_.inputs_; }
  bool pause(std::chrono::milliseconds time) override {
    link_.wait(time);
    return true;
  }
  void showPanel(std::chrono::seconds /*patience*/) override { throw client::Error("there is no terminal"); }

 private:
  Operator& owner_;
  VirtualLink link_;
  VirtualCalibrationLink calibration_;
  std::string* output_ = nullptr;
};

void Operator::start(std::vector<Job> jobs, int firstSlot, const client::InputCounts& inputs) {
  firstSlot_ = firstSlot;
  inputs_ = inputs;
  jobs_ = std::move(jobs);
  for (const Job& job : jobs_) {
    for (const std::string& note : job.notes) log_.line(0, "headend", note);
  }
  std::ranges::stable_sort(jobs_, {}, &Job::at);

  std::map<std::string, std::vector<Job*>> lanes;
  for (Job& job : jobs_) lanes[laneOf(job)].push_back(&job);
  std::uint16_t port = kFirstPort;
  for (const auto& [name, lane] : lanes) {
    kernel_.spawn("tOperator" + name, kPriority, [this, lane = lane, port] { work(lane, port); });
    port += 2;
  }
}

void Operator::work(const std::vector<Job*>& lane, std::uint16_t port) {
  VirtualSession session(*this, port);
  for (Job* job : lane) {
    kernel_.sleepUntil(job->at);
    const int slot = job->slot() >= 0 ? job->slot() : firstSlot_;
    while (!chassis_.slot(slot).initReturned) kernel_.delay(1);
    carryOut(*job, session);
  }
}

void Operator::carryOut(Job& job, VirtualSession& session) {
  job.began = kernel_.now();
  session.begin(job.output);
  try {
    job.call->command->carryOut(session);
  } catch (const std::exception& e) {
    job.error = e.what();
  }
  for (const std::string& warning : commands::warnings(session.link())) session.note(warning);
  job.ended = kernel_.now();
  log_.line(kernel_.now(), "operator", job.text + (job.error.empty() ? " done" : " failed: " + job.error));
  if (!job.isDo || job.output.empty()) return;
  std::fputs(job.output.c_str(), stdout);
  std::fflush(stdout);
  linesPrinted_ += static_cast<std::uint64_t>(std::ranges::count(job.output, '\n'));
}

std::vector<std::string> Operator::complaints() const {
  std::vector<std::string> all;
  for (const Job& job : jobs_) {
    if (!job.error.empty()) all.push_back(fmt::format("{} failed: {}", job.text, job.error));
    if (!job.ended) all.push_back(fmt::format("{} was not done when the run ended", job.text));
  }
  return all;
}

}  // namespace headend
