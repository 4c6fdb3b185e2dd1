#include "headend/firmware/back_end.h"

#include <fmt/format.h>

#include <algorithm>

#include "card/qamVar.h"
#include "platform/address_word.h"
#include "platform/wire.h"
#include "protocol/variables.h"

namespace headend {
namespace {

constexpr std::size_t kKnownClients = 64;

}  // namespace

BackEnd::BackEnd(Kernel& kernel, Network& network, Chassis& chassis, CarouselMonitor& monitor, Log& log,
                 std::function<protocol::CardState(int slot)> state)
    : kernel_(kernel),
      chassis_(chassis),
      monitor_(monitor),
      log_(log),
      socket_(network, protocol::kDefaultManagementPort),
      state_(std::move(state)) {
  using protocol::Operation;
  provide(Operation::kRead, Target::kChassis, std::bind_front(&BackEnd::callCard, this));
  provide(Operation::kWrite, Target::kChassis, std::bind_front(&BackEnd::write, this));
  provide(Operation::kGetVariable, Target::kRunningCard, std::bind_front(&BackEnd::getVariable, this));
  provide(Operation::kSetVariable, Target::kRunningCard, std::bind_front(&BackEnd::setVariable, this));
  network.onArrival([this](const UdpSocket& socket, const Datagram& datagram) {
    if (&socket == &socket_) noteArrival(datagram);
  });
}

void BackEnd::start() {
  kernel_.spawn("tBackEnd", kPriority, [this] { serve(); });
}

void BackEnd::registerVariables(u32 base, u32 limit, const chassis::bc_var* table) {
  registrations_.push_back({base, limit, table});
}

void BackEnd::serve() {
  for (;;) {
    const std::optional<Datagram> datagram = socket_.receive(os::WAIT_FOREVER);
    if (!datagram) continue;
    answer(*datagram);
    outstanding_.pop_front();
  }
}

void BackEnd::answer(const Datagram& datagram) {
  const std::optional<protocol::Request> request = protocol::decodeRequest(datagram.bytes);
  if (!request) return;  // not a request: its sender address may be forged

  auto known = std::find_if(clients_.begin(), clients_.end(),
                            [&](const KnownClient& c) { return c.address == datagram.from; });
  if (known == clients_.end()) {
    if (clients_.size() == kKnownClients) clients_.pop_back();
    clients_.push_front({datagram.from, 0, {}});
  } else {
    clients_.splice(clients_.begin(), clients_, known);
  }
  KnownClient& sender = clients_.front();
  if (sender.lastReply.empty() || sender.lastSequence != request->sequence) {
    sender.lastReply = protocol::encode(carryOut(*request));
    sender.lastSequence = request->sequence;
  }
  socket_.send(sender.address, sender.lastReply);
}

protocol::Reply BackEnd::carryOut(const protocol::Request& request) {
  protocol::Reply reply = protocol::replyTo(request);
  const auto found = operations_.find(request.operation);
  if (found == operations_.end()) {
    reply.result = protocol::kUnknownOperation;
  } else if (request.length != request.data.size()) {
    reply.result = protocol::kBadLength;
  } else {
    const auto& [target, handler] = found->second;
    protocol::Request addressed = request;
    if (target != Target::kChassis) {  // a card uses the low bytes only
      addressed.slot &= 0xFF;
      addressed.port &= 0xFF;
    }
    reply.result = refuseTarget(addressed, target);
    if (reply.result == protocol::kDone) reply.result = handler(addressed, reply.data);
    if (reply.result != protocol::kDone) reply.data.clear();
  }
  return reply;
}

u32 BackEnd::refuseTarget(const protocol::Request& request, Target target) const {
  if (target == Target::kChassis) return protocol::kDone;
  if (request.slot >= MAX_BOARD_NUM) return protocol::kBadSlotOrPort;
  if (target == Target::kChannel && request.port >= MAX_QAM_OUT_NUM) return protocol::kBadSlotOrPort;
  if (!chassis_.slot(request.slot).occupied) return protocol::kNoCard;
  if (target != Target::kRunningCard) return protocol::kDone;
  if (!chassis_.slot(request.slot).initReturned) return protocol::kNotStarted;
  return state_(request.slot) == protocol::CardState::kRunning ? protocol::kDone : protocol::kNotRunning;
}

// ---- The variables of a card's channels ----

// The row of the table that is registered for the request's channel. Where no range or row fits, any table's
// routine serves: the card itself then says what is wrong.
const chassis::bc_var* BackEnd::findVariable(const protocol::Request& request) const {
  if (registrations_.empty()) return nullptr;
  const u32 address = static_cast<u32>(request.slot & 0xFF) << 24 | (request.port & 0xFF) << 16;
  const auto fits = [&](const Registration& r) { return r.base <= address && address < r.limit; };
  const auto found = std::find_if(registrations_.begin(), registrations_.end(), fits);
  const chassis::bc_var* table = found == registrations_.end() ? registrations_.front().table : found->table;
  for (const chassis::bc_var* row = table; row->vid != 0; ++row) {
    if (row->vid == request.variable) return row;
  }
  return table;
}

u32 BackEnd::callCard(const protocol::Request& request, base::Bytes& reply) {
  const int slot = request.slot & 0xFF;
  if (slot < MAX_BOARD_NUM && chassis_.slot(slot).descriptor != nullptr &&
      !chassis_.slot(slot).initReturned) {
    return protocol::kNotStarted;
  }
  const chassis::bc_var* variable = findVariable(request);
  if (variable == nullptr) return protocol::kNoBackEnd;

  constexpr u16 kDataAfterHeader =
      sizeof(chassis::bc_vhdr_t) - 12;  // a read's data begins 12 + this after the header
  buffers_.header = {.paraType = request.variable,
                     .cardNo = request.slot,
                     .portNo = request.port,
                     .vLength = request.length,
                     .reLength = kDataAfterHeader,
                     .reserved = 0};
  buffers_.request.fill(0);
  std::copy(request.data.begin(), request.data.end(), buffers_.request.begin());

  if (request.operation == protocol::Operation::kWrite) {
    return static_cast<u32>(variable->vwr(&buffers_.header, buffers_.request.data()));
  }
  buffers_.reply.fill(0);
  const int result = variable->vrd(&buffers_.header, buffers_.reply.data());
  if (result == os::OK)
    reply.assign(buffers_.reply.begin(), buffers_.reply.begin() + buffers_.header.vLength);
  return static_cast<u32>(result);
}

u32 BackEnd::write(const protocol::Request& request, base::Bytes& reply) {
  const u32 result = callCard(request, reply);
  if (result == protocol::kDone) noteLock(request);
  return result;
}

void BackEnd::noteLock(const protocol::Request& request) {
  const bool ofPsi = request.variable == qam_back::kPsiLock;
  if (!ofPsi && request.variable != qam_back::kPidMapLock) return;
  protocol::Request read = request;
  read.operation = protocol::Operation::kRead;
  read.length = 0;
  read.data.clear();
  base::Bytes state;
  if (callCard(read, state) != protocol::kDone) return;
  const bool locked = std::any_of(state.begin(), state.end(), [](u8 byte) { return byte != 0; });
  const int slot = request.slot & 0xFF;
  const int port = static_cast<int>(request.port & 0xFF);
  const std::tuple key{ofPsi ? Lock::kPsi : Lock::kPidMap, slot, port};
  if (locked) {
    lockedSince_.try_emplace(key, kernel_.now());
  } else {
    lockedSince_.erase(key);
  }
  if (ofPsi) monitor_.restart(slot, port);
}

std::optional<Nanos> BackEnd::lockedSince(Lock lock, int slot, int port) const {
  const auto found = lockedSince_.find({lock, slot, port});
  if (found == lockedSince_.end()) return {};
  return found->second;
}

// ---- The variables of a card ----

u32 BackEnd::getVariable(const protocol::Request& request, base::Bytes& reply) {
  if (!request.data.empty()) return protocol::kBadLength;
  const protocol::CardVariable* variable = protocol::findCardVariable(request.variable);
  if (variable == nullptr) return protocol::kUnknownCardVariable;
  if (variable->kind == protocol::VariableKind::kText) {
    reply = protocol::encodeValue(chassis_.readText(request.slot, variable->id));
  } else {
    const chassis::card& card = *chassis_.slot(request.slot).descriptor;
    reply = protocol::encodeValue(card.getVar(card.slotNo, 0, variable->id, nullptr));
  }
  return protocol::kDone;
}

u32 BackEnd::setVariable(const protocol::Request& request, base::Bytes& /*reply*/) {
  if (request.data.size() != sizeof(u32)) return protocol::kBadLength;
  const protocol::CardVariable* variable = protocol::findCardVariable(request.variable);
  if (variable == nullptr) return protocol::kUnknownCardVariable;
  if (!variable->writable) return protocol::kNotWritable;
  const u32 value = wire::get32(request.data.data());
  if (!protocol::isPossible(*variable, value)) return protocol::kImpossibleValue;
  const chassis::card& card = *chassis_.slot(request.slot).descriptor;
  return static_cast<u32>(card.setVar(card.slotNo, 0, variable->id, value));
}

// ---- Requests that wait ----

void BackEnd::noteArrival(const Datagram& datagram) {
  Outstanding request{.number = arrivals_++, .cpuTimes = {}, .interruptTime = kernel_.interruptTime()};
  for (const auto& task : kernel_.tasks()) request.cpuTimes.push_back(kernel_.cpuTime(*task));
  const std::uint64_t number = request.number;
  outstanding_.push_back(std::move(request));
  kernel_.at(datagram.arrived + kSecond,
             [this, number, arrived = datagram.arrived] { reportLate(number, arrived); });
}

void BackEnd::reportLate(std::uint64_t number, Nanos arrived) {
  const auto request = std::find_if(outstanding_.begin(), outstanding_.end(),
                                    [&](const Outstanding& o) { return o.number == number; });
  if (request == outstanding_.end()) return;

  LateRequest late{.arrived = arrived, .load = {}};
  const auto& tasks = kernel_.tasks();
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    const Nanos before = i < request->cpuTimes.size() ? request->cpuTimes[i] : 0;
    const Nanos took = kernel_.cpuTime(*tasks[i]) - before;
    if (took > 0) late.load.emplace_back(tasks[i]->name, took);
  }
  late.load.emplace_back("interrupts", kernel_.interruptTime() - request->interruptTime);
  std::stable_sort(late.load.begin(), late.load.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });

  std::string load;
  for (const auto& [name, took] : late.load) {
    load += fmt::format("{}{} {} %", load.empty() ? "" : ", ", name, took * 100 / kSecond);
  }
  log_.line(kernel_.now(), "headend",
            fmt::format("a back-end request has waited for a second; meanwhile ran: {}", load));
  late_.push_back(std::move(late));
}

}  // namespace headend
