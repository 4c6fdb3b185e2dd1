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

BackEnd::BackEnd(Kernel& kernel, Network& network, Chassis& chassis, CarouselMonitor& monitor, Log& log)
    : kernel_(kernel),
      chassis_(chassis),
      monitor_(monitor),
      log_(log),
      socket_(network, protocol::kDefaultManagementPort) {
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
  switch (request.operation) {
    case protocol::Operation::kRead:
      reply.result = callCard(request, reply.data);
      break;
    case protocol::Operation::kWrite:
      reply.result = callCard(request, reply.data);
      if (reply.result == protocol::kDone) noteLock(request);
      break;
    case protocol::Operation::kGetVariable:
      reply.result = getVariable(request, reply.data);
      break;
    case protocol::Operation::kSetVariable:
      reply.result = setVariable(request);
      break;
    default:
      reply.result = passOn(request, reply.data);
  }
  return reply;
}

u32 BackEnd::passOn(const protocol::Request& request, base::Bytes& reply) const {
  const auto handler = handlers_.find(request.operation);
  if (handler == handlers_.end()) return protocol::kUnknownOperation;
  if (request.length != request.data.size()) return protocol::kBadLength;
  const u32 result = handler->second(request, reply);
  if (result != protocol::kDone) reply.clear();
  return result;
}

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
  if (request.data.size() != request.length) return protocol::kBadLength;
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

// A card checks less than this, and for some of these calls it would keep semQamVar for good.
u32 BackEnd::refuseVariable(const protocol::Request& request, std::size_t length) const {
  const int slot = request.slot & 0xFF;
  if (slot >= MAX_BOARD_NUM) return protocol::kBadSlotOrPort;
  const chassis::card* card = chassis_.slot(slot).descriptor;
  if (card == nullptr || card->getVar == nullptr) return protocol::kNoCard;  // a source card has no variables
  if (!chassis_.slot(slot).initReturned) return protocol::kNotStarted;
  if (!running_(slot)) return protocol::kNotRunning;
  if (request.length != length || request.data.size() != length) return protocol::kBadLength;
  const protocol::CardVariable* variable = protocol::findCardVariable(request.variable);
  if (variable == nullptr) return protocol::kUnknownCardVariable;
  if (request.operation == protocol::Operation::kSetVariable && !variable->writable)
    return protocol::kNotWritable;
  return protocol::kDone;
}

u32 BackEnd::getVariable(const protocol::Request& request, base::Bytes& reply) {
  if (const u32 refusal = refuseVariable(request, 0); refusal != protocol::kDone) return refusal;
  const int slot = request.slot & 0xFF;
  const bool isText = protocol::findCardVariable(request.variable)->kind == protocol::VariableKind::kText;
  if (isText) {
    reply = protocol::encodeValue(chassis_.readText(slot, request.variable));
  } else {
    reply = protocol::encodeValue(
        chassis_.slot(slot).descriptor->getVar(static_cast<u8>(slot), 0, request.variable, nullptr));
  }
  return protocol::kDone;
}

u32 BackEnd::setVariable(const protocol::Request& request) {
  constexpr std::size_t kNumberSize = 4;
  if (const u32 refusal = refuseVariable(request, kNumberSize); refusal != protocol::kDone) return refusal;
  const int slot = request.slot & 0xFF;
  const u32 value = wire::get32(request.data.data());
  if (!protocol::isPossible(*protocol::findCardVariable(request.variable), value))
    return protocol::kImpossibleValue;
  return static_cast<u32>(
      chassis_.slot(slot).descriptor->setVar(static_cast<u8>(slot), 0, request.variable, value));
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
