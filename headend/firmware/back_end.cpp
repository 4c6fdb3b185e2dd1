#include "headend/firmware/back_end.h"

#include <fmt/format.h>

#include <algorithm>

#include "card/qamVar.h"
#include "platform/address_word.h"
#include "platform/wire.h"
#include "protocol/variables.h"

namespace headend {
namespace {

bool isOfCard(BackEnd::Target target) {
  return target == BackEnd::Target::kChannel || target == BackEnd::Target::kRunningCard;
}

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
  provide(Operation::kRead, Target::kChassis, {}, std::bind_front(&BackEnd::callCard, this));
  provide(Operation::kWrite, Target::kChassis, {}, std::bind_front(&BackEnd::write, this));
  provide(Operation::kGetVariable, Target::kRunningCard, 0, std::bind_front(&BackEnd::getVariable, this));
  provide(Operation::kGroupStarts, Target::kChannel, 8, std::bind_front(&BackEnd::groupStarts, this));
  provide(Operation::kSetVariable, Target::kRunningCard, 4, std::bind_front(&BackEnd::setVariable, this));
  network.onArrival([this](const UdpSocket& socket, const Datagram& datagram) {
    return &socket == &socket_ && arrived(datagram);
  });
}

void BackEnd::serve() {
  for (;;) {
    const std::optional<Datagram> datagram = socket_.receive(os::WAIT_FOREVER);
    if (!datagram) continue;
    answer(*datagram);
    outstanding_.pop_front();
  }
}

// True: it is for the machine.
bool BackEnd::arrived(const Datagram& datagram) {
  auto request = protocol::decodeRequest(datagram.bytes);
  const auto found = request ? operations_.find(request->operation) : operations_.end();
  if (found == operations_.end() || found->second.target != Target::kMachine) {
    noteArrival(datagram);
    return false;
  }
  machineRequests_.emplace_back(datagram.from, std::move(*request));
  kernel_.wakeFirst(machineWaiters_);
  return true;
}

void BackEnd::serveMachine() {
  for (;;) {
    while (machineRequests_.empty()) kernel_.waitOn(machineWaiters_, os::WAIT_FOREVER);
    const auto [from, request] = std::move(machineRequests_.front());
    machineRequests_.pop_front();
    socket_.send(from, machineReplies_.to(from, request.sequence, [&, &request = request] {
      return protocol::encode(carryOut(request));
    }));
  }
}

void BackEnd::answer(const Datagram& datagram) {
  const std::optional<protocol::Request> request = protocol::decodeRequest(datagram.bytes);
  if (!request) return;  // not a request: its sender address may be forged

  socket_.send(datagram.from, replies_.to(datagram.from, request->sequence,
                                          [&] { return protocol::encode(carryOut(*request)); }));
}

const base::Bytes& BackEnd::Replies::to(const Endpoint& client, u32 sequence,
                                        const std::function<base::Bytes()>& carryOut) {
  const auto known = std::ranges::find(clients_, client, &Client::address);
  if (known == clients_.end()) {
    if (clients_.size() == kKnownClients) clients_.pop_back();
    clients_.push_front({client});
  } else {
    clients_.splice(clients_.begin(), clients_, known);
  }
  Client& last = clients_.front();
  if (last.reply.empty() || last.sequence != sequence) {
    last.reply = carryOut();
    last.sequence = sequence;
  }
  return last.reply;
}

protocol::Reply BackEnd::carryOut(protocol::Request request) {
  protocol::Reply reply{static_cast<u8>(request.operation), request.sequence, request.variable, request.slot,
                        request.port};
  const auto found = operations_.find(request.operation);
  if (found == operations_.end()) {
    reply.result = protocol::kUnknownOperation;
  } else if (request.length != request.data.size()) {
    reply.result = protocol::kBadLength;
  } else {
    const auto& [target, size, handler] = found->second;
    if (isOfCard(target)) {  // a card uses the low bytes only
      request.slot &= 0xFF;
      request.port &= 0xFF;
    }
    reply.result = refuseTarget(request, target);
    if (reply.result == protocol::kDone && size.value_or(request.length) != request.length)
      reply.result = protocol::kBadLength;
    if (reply.result == protocol::kDone) reply.result = handler(request, reply.data);
    if (reply.result != protocol::kDone) reply.data.clear();
    const int slot = request.slot & 0xFF;
    reply.recordNotKept =
        protocol::isForCard(request.operation) && slot < MAX_BOARD_NUM && !chassis_.slot(slot).recordKept();
  }
  return reply;
}

u32 BackEnd::refuseTarget(const protocol::Request& request, Target target) const {
  if (!isOfCard(target)) return protocol::kDone;
  if (request.slot >= MAX_BOARD_NUM) return protocol::kBadSlotOrPort;
  if (target == Target::kChannel && request.port >= MAX_QAM_OUT_NUM) return protocol::kBadSlotOrPort;
  if (!chassis_.slot(request.slot).occupied) return protocol::kNoCard;
  if (target != Target::kRunningCard) return protocol::kDone;
  const protocol::CardState state = state_(request.slot);
  if (state == protocol::CardState::kStarting) return protocol::kNotStarted;
  return state == protocol::CardState::kRunning ? protocol::kDone : protocol::kNotRunning;
}

// ---- The variables of a card's channels ----

// The row of the table that is registered for the request's channel. Where no range or row fits, any table's
// routine serves: the card itself then reports what is wrong.
const chassis::bc_var* BackEnd::findVariable(const protocol::Request& request) const {
  if (registrations_.empty()) return nullptr;
  const u32 address = static_cast<u32>(request.slot & 0xFF) << 24 | (request.port & 0xFF) << 16;
  const auto fits = [&](const Registration& r) { return r.base <= address && address < r.limit; };
  const auto found = std::ranges::find_if(registrations_, fits);
  const chassis::bc_var* table = found == registrations_.end() ? registrations_.front().table : found->table;
  for (const chassis::bc_var* row = table; row->vid != 0; ++row) {
    if (row->vid == request.variable) return row;
  }
  return table;
}

u32 BackEnd::callCard(const protocol::Request& request, base::Bytes& reply) {
  const int slot = request.slot & 0xFF;
  const Chassis::Slot* place = slot < MAX_BOARD_NUM ? &chassis_.slot(slot) : nullptr;
  if (place != nullptr && place->occupied && !place->initReturned && !place->registrationFailed)
    return state_(slot) == protocol::CardState::kStarting ? protocol::kNotStarted : protocol::kNotRunning;
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
  std::ranges::copy(request.data, buffers_.request.begin());
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
  if (result == protocol::kDone && request.variable == qam_back::kPsiInterval)
    monitor_.intervalSet(request.slot & 0xFF, static_cast<int>(request.port & 0xFF));
  return result;
}

u32 BackEnd::groupStarts(const protocol::Request& request, base::Bytes& reply) {
  const u64 from = u64{wire::get32(request.data.data())} << 32 | wire::get32(&request.data[4]);
  reply = protocol::encode(
      monitor_.starts(request.slot, static_cast<int>(request.port), from, kernel_.auxTicks()));
  return protocol::kDone;
}

void BackEnd::noteLock(const protocol::Request& request) {
  if (request.variable != qam_back::kPsiLock && request.variable != qam_back::kPidMapLock) return;
  protocol::Request read = request;
  read.operation = protocol::Operation::kRead;
  read.length = 0;
  read.data.clear();
  base::Bytes state;
  if (callCard(read, state) != protocol::kDone) return;
  const int slot = request.slot & 0xFF;
  const int port = static_cast<int>(request.port & 0xFF);
  const std::tuple key{request.variable, slot, port};
  if (std::ranges::any_of(state, [](u8 byte) { return byte != 0; })) {
    lockedSince_.try_emplace(key, kernel_.now());
  } else {
    lockedSince_.erase(key);
  }
  if (request.variable == qam_back::kPsiLock) monitor_.restart(slot, port);
}

std::optional<Nanos> BackEnd::lockedSince(u16 lock, int slot, int port) const {
  const auto found = lockedSince_.find({lock, slot, port});
  return found == lockedSince_.end() ? std::nullopt : std::optional(found->second);
}

// ---- The variables of a card ----

u32 BackEnd::getVariable(const protocol::Request& request, base::Bytes& reply) {
  const protocol::CardVariable* variable = protocol::findCardVariable(request.variable);
  if (variable == nullptr) return protocol::kUnknownCardVariable;
  const chassis::card& card = *chassis_.slot(request.slot).descriptor;
  reply = variable->kind == protocol::VariableKind::kText
              ? protocol::encodeValue(chassis_.readText(request.slot, variable->id))
              : protocol::encodeValue(card.getVar(card.slotNo, 0, variable->id, nullptr));
  return protocol::kDone;
}

u32 BackEnd::setVariable(const protocol::Request& request, base::Bytes& /*reply*/) {
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
  const std::uint64_t number = arrivals_++;
  Outstanding& request = outstanding_.emplace_back(Outstanding{number, {}, kernel_.interruptTime()});
  for (const auto& task : kernel_.tasks()) request.cpuTimes.push_back(kernel_.cpuTime(*task));
  kernel_.at(datagram.arrived + kSecond,
             [this, number, arrived = datagram.arrived] { reportLate(number, arrived); });
}

void BackEnd::reportLate(std::uint64_t number, Nanos arrived) {
  const auto request = std::ranges::find(outstanding_, number, &Outstanding::number);
  if (request == outstanding_.end()) return;

  LateRequest late{.arrived = arrived, .load = {}};
  const auto& tasks = kernel_.tasks();
  for (std::size_t i = 0; i < tasks.size(); ++i) {
    const Nanos before = i < request->cpuTimes.size() ? request->cpuTimes[i] : 0;
    const Nanos took = kernel_.cpuTime(*tasks[i]) - before;
    if (took > 0) late.load.emplace_back(tasks[i]->name, took);
  }
  late.load.emplace_back("interrupts", kernel_.interruptTime() - request->interruptTime);
  std::ranges::stable_sort(late.load, std::greater(), &std::pair<std::string, Nanos>::second);

  std::string load;
  for (const auto& [name, took] : late.load)
    load += fmt::format("{}{} {} %", load.empty() ? "" : ", ", name, took * 100 / kSecond);
  log_.line(kernel_.now(), "headend",
            fmt::format("a back-end request has waited for a second; meanwhile ran: {}", load));
  late_.push_back(std::move(late));
}

}  // namespace headend
