#include "campaign/machine.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <random>

#include "campaign/host_faults.h"
#include "headend/firmware/snmp/net_snmp.h"
#include "headend/jobs.h"
#include "headend/report.h"
#include "mpeg/packet_reader.h"
#include "protocol/records.h"

namespace campaign {
namespace {

constexpr int kPriority = 48;  // above every task: what happens at a history happens outside the chassis
constexpr Nanos kPatience = 90 * kSecond;  // after the history's end, until all work is done

headend::Options optionsOf(const Preparation& preparation, const std::vector<int>& slots, bool leavesTraces) {
  headend::Options options;
  options.flash = "flash";
  options.slots = slots;
  options.fast = true;
  options.statusPeriod = kSecond / 5;
  options.log = leavesTraces ? "log" : "/dev/null";
  if (leavesTraces) {
    options.trace = "trace.vcd";
    for (const int slot : slots) {
      for (u16 port = 0; port < MAX_QAM_OUT_NUM; ++port)
        options.outputs[{.slot = static_cast<u16>(slot), .port = port}] =
            fmt::format("{}.{}.ts", slot + 1, port + 1);
    }
  }
  for (const std::string& input : preparation.inputs)
    options.sources[5].push_back({"files/" + input, std::nullopt, std::nullopt});
  options.snmp.listen = base::Address{"127.0.0.1", 0};
  options.snmp.writeCommunity = true;
  options.jobs = {
      headend::jobOf(fmt::format("cal read {}", slots.front() + 1))};  // the calibration service starts
  return options;
}

// A table's packets of a capture: PID, table_id and packet.
struct StoredPacket {
  u16 pid;
  u8 table;
  mpeg::Packet packet;
};
std::vector<StoredPacket> packetsOf(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  mpeg::PacketReader reader(stream);
  std::vector<StoredPacket> all;
  std::map<u16, u8> tables;
  while (const u8* next = reader.next()) {
    StoredPacket each{};
    std::copy_n(next, each.packet.size(), each.packet.begin());
    each.pid = mpeg::pidOf(each.packet);
    if (mpeg::startsUnit(each.packet)) tables[each.pid] = each.packet[5];
    each.table = tables[each.pid];
    all.push_back(each);
  }
  return all;
}

std::function<void()>& kernelCall() {  // before each call of the kernel by the module
  static std::function<void()> hook = [] {};
  return hook;
}

// A process that was forked shares the positions in its files with others: it opens them anew.
void reopenCaptures() {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    if (!std::filesystem::read_symlink(entry.path(), ignored).string().ends_with(".ts")) continue;
    const int fd = std::stoi(entry.path().filename());
    if ((::fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDONLY) continue;
    const int own = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    ::lseek(own, ::lseek(fd, 0, SEEK_CUR), SEEK_SET);
    ::dup2(own, fd);
    ::close(own);
  }
}

double cpuMilliseconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  const auto of = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
  };
  return of(usage.ru_utime) + of(usage.ru_stime);
}

}  // namespace

Machine::Machine(const Preparation& preparation, const std::vector<int>& slots, Traces traces,
                 const History* history)
    : preparation_(preparation), traces_(traces), hasCommands_(history != nullptr) {
  headend::Options options = optionsOf(preparation, slots, traces == Traces::kAll);
  if (history != nullptr) std::ranges::move(jobsOf(*history), std::back_inserter(options.jobs));
  headend_ = std::make_unique<headend::Headend>(std::move(options));
  headend::provideStatus(*headend_);
  judge_ = std::make_unique<Judge>(*headend_);
}

void Machine::prepare() {
  run(true, [this] {
    std::vector<headend::Job> jobs;
    for (const std::string& command : preparation_.commands)
      jobs.push_back(headend::jobOf(command, headend_->options.inputCounts()));
    headend_->automaticOperator.start(std::move(jobs), preparation_.slots.front(),
                                      headend_->options.inputCounts());
    while (!isQuiet() && headend_->kernel.now() < kPatience) headend_->kernel.delay(1);
    if (!isQuiet()) judge_->failed("preparation", "a command has not ended, or the flash has no space");
    for (const std::string& complaint : headend_->automaticOperator.complaints())
      judge_->failed("preparation", complaint);
    for (const Failure& each : judge_->failures()) fmt::print(stderr, "{}: {}\n", each.invariant, each.text);
    headend_->kernel.stop();
  });
  if (!judge_->failures().empty()) _exit(1);
}

void Machine::run(bool waits, const std::function<void()>& ready) {
  task(0, [this, waits, ready] {
    headend::Kernel& kernel = headend_->kernel;
    const auto runs = [this](int slot) { return headend_->chassis.slot(slot).initReturned; };
    while (waits && (!std::ranges::all_of(headend_->options.slots, runs) || !isQuiet())) kernel.delay(1);
    if (waits) kernel.sleepUntil(kernel.now() + kSecond / 2);  // the carousels run
    ready();
  });
  const std::atomic<bool> interrupted = false;
  headend::run(*headend_, interrupted);
  if (isPlaying_) {  // the kernel has stopped the run
    judge_->examine(false);
    finish();
  }
}

void Machine::play(const History& history, const Plant* plant) {
  headend::Kernel& kernel = headend_->kernel;
  isPlaying_ = true;
  begin_ = kernel.now();
  // The agent's socket is this process's own.
  const int fd = headend::openHostSocket("127.0.0.1", 0);
  ::dup2(fd, headend_->snmp->fd());
  ::close(fd);
  reopenCaptures();
  judge_->begin(history);
  for (const int slot : headend_->options.slots)
    eeproms_[slot] = headend_->card(slot).board().eeprom.image(begin_);
  std::ranges::for_each(history.steps, [this](const Step& step) { schedule(step); });
  if (!hasCommands_)
    headend_->automaticOperator.start(jobsOf(history), preparation_.slots.front(),
                                      headend_->options.inputCounts());
  const Nanos end = begin_ + history.length;
  if (plant != nullptr)
    task(end - kSecond / 4, [this, plant] { plant->set(*headend_, preparation_.slots.front()); });
  while (kernel.now() < end) {
    kernel.sleepUntil(std::min(end, kernel.now() + kSecond / 2));
    judge_->examine(false);
  }
  flashFaults().endAll();
  headend_->heap.allows = [](std::size_t) { return true; };
  kernelCall() = [] {};
  do {
    kernel.sleepUntil(kernel.now() + kSecond / 2);
  } while (!isQuiet() && kernel.now() < end + kPatience);
  judge_->examine(true);
  finish();
}

void Machine::playStart(const nlohmann::ordered_json& records) {
  headend::Kernel& kernel = headend_->kernel;
  isPlaying_ = true;
  judge_->begin({.seed = 0, .preparation = &preparation_});
  for (const int slot : headend_->options.slots) {
    const auto& hash = records[std::to_string(slot)];
    judge_->expectRecord(slot, hash.is_null() ? std::nullopt : std::optional(hash.get<u64>()));
  }
  const auto starts = [this](int slot) { return !headend_->chassis.slot(slot).initReturned; };
  while (std::ranges::any_of(headend_->options.slots, starts) && kernel.now() < 20 * kSecond) kernel.delay(1);
  kernel.sleepUntil(kernel.now() + kSecond / 2);
  judge_->examine(true);
  finish();
}

// All work is done, so that what the flash holds is what the cards have in memory.
bool Machine::isQuiet() {
  const auto ended = [](const headend::Job& job) { return job.ended.has_value(); };
  return std::ranges::all_of(headend_->automaticOperator.jobs(), ended) &&
         std::ranges::all_of(headend_->options.slots,
                             [this](int slot) { return headend_->chassis.slot(slot).recordKept(); }) &&
         semQamVar->available;
}

// ---- Steps ----

void Machine::task(Nanos at, std::function<void()> body) {
  headend_->kernel.spawn("tCampaign", kPriority, [this, at, body = std::move(body)] {
    headend_->kernel.sleepUntil(at);
    body();
  });
}

std::vector<headend::Job> Machine::jobsOf(const History& history) const {
  client::InputCounts inputs;
  if (!preparation_.inputs.empty()) inputs[5] = static_cast<u32>(preparation_.inputs.size());
  std::vector<headend::Job> jobs;
  for (const Step& step : history.steps) {
    if (step.kind == Step::Kind::kCommand)
      jobs.emplace_back(headend::jobOf(step.what, inputs)).at = begin_ + step.at;
  }
  return jobs;
}

void Machine::schedule(const Step& step) {
  headend::Kernel& kernel = headend_->kernel;
  const Nanos at = begin_ + step.at;
  const Nanos until = begin_ + step.until;
  switch (step.kind) {
    case Step::Kind::kCommand:
      return;
    case Step::Kind::kSnmp:
      return task(at, [this, step] { askSnmp(step); });
    case Step::Kind::kFault:
      return headend_->faults.add({.place = protocol::parseFault(step.what).value(),
                                   .at = at,
                                   .until = step.until > step.at ? std::optional(until) : std::nullopt});
    case Step::Kind::kTemperature: {
      const auto measure = [this, step](double celsius) {
        headend_->card(step.slot)
            .board()
            .sensor(step.what == "1" ? 1 : 2)
            .temperature(celsius, headend_->kernel.now());
      };
      kernel.at(at, [measure, step] { measure(static_cast<double>(step.number)); });
      return kernel.at(until, [measure] { measure(40); });
    }
    case Step::Kind::kFlash:
      kernel.at(at, [step] { flashFaults().begin(step.what, static_cast<u64>(step.number)); });
      return kernel.at(until, [step] { flashFaults().end(step.what); });
    case Step::Kind::kHeap:
      kernel.at(at, [this, step, left = step.number]() mutable {
        headend_->heap.allows = [this, left](std::size_t size) mutable {
          if (left-- > 0) return true;
          // The card uses the memory of a send list unchecked: without it, it is to be started again.
          if (size <= 2 * sizeof(void*)) cutPower("no memory for a send list");
          return false;
        };
      });
      return kernel.at(until, [this] { headend_->heap.allows = [](std::size_t) { return true; }; });
    case Step::Kind::kUpload:
      return task(at, [this, step] { upload(step); });
    case Step::Kind::kFlood:
      return task(at, [this, step] { flood(step); });
    case Step::Kind::kClock:
      return kernel.at(at, [this, step] { headend_->options.epoch += static_cast<u32>(step.number); });
    case Step::Kind::kPowerCut:
      return kernel.at(at, [this, step] { planPowerCut(step); });
  }
}

void Machine::planPowerCut(const Step& step) {
  const auto count = static_cast<u64>(step.number);
  if (step.what == "edge") {
    headend::CardBoard& board = headend_->card(step.slot).board();
    board.atEdge(board.calibrationEdges() + count, [this] { cutPower("edge"); });
  } else if (step.what == "call") {
    kernelCall() = [this, left = count]() mutable {
      if (--left == 0) cutPower("call");
    };
  } else if (step.what == "time") {
    cutPower("time");
  } else {
    flashFaults().cutAt(count, step.what == "flash midway", [this, what = step.what] { cutPower(what); });
  }
}

// A client that knows the datagrams, and ends in mid-upload or sends what is wrong.
void Machine::upload(const Step& step) {
  headend::UdpSocket socket(headend_->network, nextPort_++);
  u32 sequence = 0;
  const auto write = [&](u16 variable, protocol::Bytes data) {
    protocol::Request request =
        protocol::makeRequest(protocol::Operation::kWrite, variable, static_cast<u16>(step.slot),
                              static_cast<u32>(step.port), std::move(data));
    request.sequence = ++sequence;
    socket.send({.address = 0, .port = protocol::kDefaultManagementPort}, protocol::encode(request));
    socket.receive(300);
  };
  std::mt19937 random(static_cast<u32>(step.number * 7 + step.at));
  const auto draw = [&](u32 below) { return static_cast<u32>(random() % below); };
  if (step.what == "map left") {
    write(protocol::kPidMapLock, protocol::encodeNumber(1));
    for (std::int64_t i = 0; i < step.number % 4; ++i) {
      std::vector<protocol::MapEntry> entries(draw(60));
      for (protocol::MapEntry& each : entries) {
        each.sourceSlot = static_cast<u16>(draw(8));
        each.sourcePort = static_cast<u16>(draw(3));
        each.sourcePid = static_cast<u16>(draw(0x2000));
        each.pid = static_cast<u16>(draw(0x2000));
      }
      write(protocol::kPidMapChunk, protocol::encodeMapChunk(draw(260), draw(200), entries));
    }
    if (step.number % 3 == 0) write(protocol::kPidMapLock, protocol::encodeNumber(0));
    return;
  }
  if (step.what != "store overfull") write(protocol::kPsiLock, protocol::encodeNumber(1));
  std::int64_t left = step.what == "store overfull" ? 520 : step.number;
  while (left > 0) {
    for (StoredPacket each : packetsOf("files/psi-full.ts")) {
      if (left-- <= 0) break;
      if (step.what == "tables damaged" && draw(4) == 0)
        each.packet[draw(kTsPacketSize)] ^= static_cast<u8>(1U << draw(8));
      write(protocol::kPsiPackets, protocol::encodePackets(each.pid, each.table, std::vector{each.packet}));
    }
  }
  if (step.what == "tables damaged") write(protocol::kPsiLock, protocol::encodeNumber(0));
}

void Machine::flood(const Step& step) {
  const bool isCalibration = step.what.starts_with("calibration");
  headend::UdpSocket socket(headend_->network, nextPort_++);
  std::mt19937 random(static_cast<u32>(step.number + step.at));
  for (std::int64_t i = 0; i < step.number; ++i) {
    if (step.what == "snmp") {
      askSnmp(step);
    } else {
      protocol::Bytes bytes;
      if (step.what == "management") {
        protocol::Request request = protocol::makeRequest(
            protocol::Operation::kRead, protocol::kPsiInterval, static_cast<u16>(step.slot),
            static_cast<u32>(random() % 2), protocol::encodeIntervalRequest(static_cast<u8>(random() % 3)));
        request.sequence = static_cast<u32>(i + 1);
        bytes = protocol::encode(request);
      } else {
        bytes.resize(isCalibration ? 15 : random() % 60);
        for (u8& byte : bytes) byte = static_cast<u8>(random());
        if (step.what == "calibration") bytes[0] = 1, bytes[1] = static_cast<u8>(step.slot);
      }
      socket.send(
          {.address = 0,
           .port = isCalibration ? client::kDefaultCalibrationPort : protocol::kDefaultManagementPort},
          bytes);
    }
    if (i % 16 == 15) headend_->kernel.delay(1);
    while (!socket.waiting().empty()) socket.receive(0);
  }
}

void Machine::askSnmp(const Step& step) {
  const auto [row, value] = snmpRequestOf(step);
  std::vector<oid> name(headend_->options.snmp.base.begin(), headend_->options.snmp.base.end());
  name.push_back(kMibFirstSlot + static_cast<oid>(step.slot));
  name.insert(name.end(), std::begin(row.suffix), std::end(row.suffix));
  name.push_back(0);
  netsnmp_pdu* pdu = ::snmp_pdu_create(value ? SNMP_MSG_SET : SNMP_MSG_GET);
  if (value) {
    ::snmp_add_var(pdu, name.data(), name.size(), 'i', std::to_string(*value).c_str());
  } else {
    ::snmp_add_null_var(pdu, name.data(), name.size());
  }
  std::string agent = headend_->snmp->address();
  std::string community = "writers";
  netsnmp_session manager{};
  ::snmp_sess_init(&manager);
  manager.version = SNMP_VERSION_2c;
  manager.peername = agent.data();
  manager.community = reinterpret_cast<u8*>(community.data());
  manager.community_len = community.size();
  void* session = ::snmp_sess_open(&manager);
  if (session == nullptr || ::snmp_sess_send(session, pdu) == 0) ::snmp_free_pdu(pdu);
  if (session != nullptr) ::snmp_sess_close(session);  // the answer is not read
}

// ---- The end ----

void Machine::cutPower(const std::string& how) {
  cut_ = how;
  flashFaults().endAll();
  for (const int slot : headend_->options.slots) {
    headend_->card(slot).board().cutPower(headend_->kernel.now());
    judge_->noteWritten(slot);
  }
  judge_->examine(false);
  finish();
}

void Machine::finish() {
  headend_->eepromFiles.save(headend_->kernel.now());
  for (const auto& [slot, image] : eeproms_) {
    if (headend_->card(slot).board().eeprom.image(headend_->kernel.now()) != image) judge_->noteWritten(slot);
  }
  nlohmann::ordered_json failures = nlohmann::ordered_json::array();
  for (const Failure& each : judge_->failures())
    failures.push_back({{"invariant", each.invariant}, {"text", each.text}});
  std::vector<int> written;
  nlohmann::ordered_json records = nlohmann::ordered_json::object();
  for (const int slot : headend_->options.slots) {
    records[std::to_string(slot)] = nullptr;
    if (const auto hash = judge_->recordHash(slot)) records[std::to_string(slot)] = *hash;
    if (!headend_->runs(slot)) judge_->noteWritten(slot);  // it is to run again
    if (judge_->isWritten(slot)) written.push_back(slot);
  }
  const nlohmann::ordered_json result = {
      {"failures", failures},
      {"cut", cut_},
      {"written", written},
      {"records", records},
      {"virtual_ms", (headend_->kernel.now() - begin_) / kMillisecond},
      {"commands", headend_->automaticOperator.jobs().size()},
      {"commands_refused", std::ranges::count_if(headend_->automaticOperator.jobs(),
                                                 [](const headend::Job& job) { return !job.error.empty(); })},
      {"flash_failures", flashFaults().injected()},
      {"memory_failures", headend_->heap.failures()},
      {"checks", judge_->checks()},
      {"cpu_ms", cpuMilliseconds()}};
  if (traces_ == Traces::kAll) {
    std::ofstream("report.json") << headend::reportText(*headend_);
    for (const auto& [channel, sink] : headend_->sinks) sink->flush();
    if (headend_->trace) headend_->trace->finish(headend_->kernel.now());
  }
  const bool isWritten = (std::ofstream("result") << result.dump() << std::flush).good();
  _exit(isWritten ? 0 : kExitNoResult);
}

}  // namespace campaign

// ---- The module's calls of the kernel ----

#define CALL_OF_THE_KERNEL(result, name, parameters, arguments) \
  result __real_##name parameters;                              \
  result __wrap_##name parameters {                             \
    campaign::kernelCall()();                                   \
    return __real_##name arguments;                             \
  }
extern "C" {
CALL_OF_THE_KERNEL(int, taskDelay, (int ticks), (ticks))
CALL_OF_THE_KERNEL(int, taskLock, (), ())
CALL_OF_THE_KERNEL(int, taskUnlock, (), ())
CALL_OF_THE_KERNEL(int, semTake, (os::SEM_ID semaphore, int timeout), (semaphore, timeout))
CALL_OF_THE_KERNEL(int, semGive, (os::SEM_ID semaphore), (semaphore))
CALL_OF_THE_KERNEL(int, msgQSend,
                   (os::MSG_Q_ID queue, char* buffer, unsigned length, int timeout, int priority),
                   (queue, buffer, length, timeout, priority))
CALL_OF_THE_KERNEL(int, msgQReceive, (os::MSG_Q_ID queue, char* buffer, unsigned most, int timeout),
                   (queue, buffer, most, timeout))
}
