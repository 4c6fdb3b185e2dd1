#include "headend/hardware/pid_router.h"

#include <algorithm>

namespace headend {

// As a word of the map numbers them.
std::size_t PidRouter::inputIndex(int slot, int port) {
  return static_cast<std::size_t>(slot) * kInputsPerCard + static_cast<std::size_t>(port);
}

std::size_t PidRouter::outputIndex(int slot, int port) {
  return static_cast<std::size_t>(slot) * MAX_QAM_OUT_NUM + static_cast<std::size_t>(port);
}

void PidRouter::connectInput(int slot, int port, TsInput& source) {
  const std::size_t index = inputIndex(slot, port);
  auto& input = inputs_.at(index);
  input = std::make_unique<Input>();
  input->source = &source;
  input->routes.fill(kNoRoute);
  for (std::size_t output = 0; output < kOutputs; ++output) {
    for (const Position& position : outputs_[output].map) {
      if (position.inUse() && position.key() / kPids == index) relink(output, position.key());
    }
  }
  lanes_.clear();
  for (const auto& each : inputs_) {
    if (each) lanes_.push_back({.next = each->source->nextArrival(), .input = each.get()});
  }
  earliest();
}

void PidRouter::connectOutput(int slot, int port, Multiplexer& output) {
  outputs_.at(outputIndex(slot, port)).multiplexer = &output;
  output.setFeed(this);
}

// ---- The map ----

void PidRouter::set(Nanos now, int slot, int port, u16 index, const Words& words) {
  if (slot < 0 || slot >= MAX_BOARD_NUM || port < 0 || port >= MAX_QAM_OUT_NUM || index >= kPidMapSize)
    return;
  deliverUntil(now);
  const std::size_t number = outputIndex(slot, port);
  Output& output = outputs_[number];
  Position& position = output.map[index];
  const Position before = position;
  position.words = {words[0], words[1], static_cast<u16>(words[2] & 7)};
  if (before.inUse()) {
    --output.namedBy[before.key() / kPids];
    relink(number, before.key());
  }
  if (position.inUse()) {
    ++output.namedBy[position.key() / kPids];
    relink(number, position.key());
  }
}

// Makes the first position of an output that names a source the only one of this output among its routes.
void PidRouter::relink(std::size_t output, Key key) {
  const auto& input = inputs_[key / kPids];
  if (!input) return;
  u16& head = input->routes[key % kPids];
  for (u16* link = &head; *link != kNoRoute; link = &route(*link).nextRoute) {
    if (*link / kPidMapSize == output) {
      *link = route(*link).nextRoute;
      break;
    }
  }
  auto& map = outputs_[output].map;
  const auto first =
      std::find_if(map.begin(), map.end(), [key](const Position& p) { return p.inUse() && p.key() == key; });
  if (first == map.end()) return;
  first->nextRoute = head;
  head = static_cast<u16>(output * kPidMapSize + static_cast<std::size_t>(first - map.begin()));
}

const PidRouter::Words& PidRouter::position(int slot, int port, u16 index) const {
  return outputs_.at(outputIndex(slot, port)).map.at(index).words;
}

std::size_t PidRouter::used(int slot, int port) const {
  const auto& map = outputs_.at(outputIndex(slot, port)).map;
  return static_cast<std::size_t>(
      std::count_if(map.begin(), map.end(), [](const Position& position) { return position.inUse(); }));
}

std::size_t PidRouter::shadowed(int slot, int port) const {
  std::vector<Key> keys;
  for (const Position& position : outputs_.at(outputIndex(slot, port)).map) {
    if (position.inUse()) keys.push_back(position.key());
  }
  std::sort(keys.begin(), keys.end());
  return static_cast<std::size_t>(keys.end() - std::unique(keys.begin(), keys.end()));
}

// ---- Packets ----

void PidRouter::deliverUntil(Nanos now) {
  if (delivering_) return;
  if (someIdle_) listenToIdle();
  if (now < earliest_) return;
  delivering_ = true;
  for (Lane* lane = earliest(); lane != nullptr && lane->next <= now; lane = earliest()) deliver(*lane);
  delivering_ = false;
}

// The network brings an idle input packets at any time.
void PidRouter::listenToIdle() {
  for (Lane& lane : lanes_) {
    if (lane.next != kNever) continue;
    lane.next = lane.input->source->nextArrival();
    earliest_ = std::min(earliest_, lane.next);
  }
}

PidRouter::Lane* PidRouter::earliest() {
  Lane* first = nullptr;
  earliest_ = kNever;
  someIdle_ = false;
  for (Lane& lane : lanes_) {
    if (lane.next == kNever) someIdle_ = true;
    if (lane.next >= earliest_) continue;
    earliest_ = lane.next;
    first = &lane;
  }
  return first;
}

void PidRouter::deliver(Lane& lane) {
  Input& input = *lane.input;
  const Nanos arrival = lane.next;
  const mpeg::PacketView packet = input.source->take();
  const bool synchronous = packet[0] == mpeg::kSyncByte;
  if (!input.isCut && (!synchronous || mpeg::hasTransportError(packet))) ++input.counts.damaged;
  if (!input.isCut && synchronous) {
    ++input.counts.packets;
    input.counts.last = arrival;
    if (input.observer) input.observer(packet);
    for (u16 number = input.routes[mpeg::pidOf(packet)]; number != kNoRoute;
         number = route(number).nextRoute) {
      Multiplexer* output = outputs_[number / kPidMapSize].multiplexer;
      if (output != nullptr) output->offer(arrival, packet, chassis::outputPid(route(number).words));
    }
  }
  lane.next = input.source->nextArrival();
}

bool PidRouter::cut(Nanos now, int slot, int port, bool isCut) {
  const auto& input = inputs_.at(inputIndex(slot, port));
  if (!input) return false;
  deliverUntil(now);
  input->isCut = isCut;
  return true;
}

// ---- What others ask ----

const PidRouter::InputCounts* PidRouter::input(int slot, int port) const {
  const auto& input = inputs_.at(inputIndex(slot, port));
  return input ? &input->counts : nullptr;
}

void PidRouter::onPacket(int slot, int port, std::function<void(mpeg::PacketView)> observer) {
  const auto& input = inputs_.at(inputIndex(slot, port));
  if (input) input->observer = std::move(observer);
}

bool PidRouter::inputLost(int slot, int port, Nanos now) {
  deliverUntil(now);
  const Output& output = outputs_.at(outputIndex(slot, port));
  for (std::size_t index = 0; index < kNameable; ++index) {
    if (output.namedBy[index] == 0) continue;
    const Nanos last = inputs_[index] ? inputs_[index]->counts.last.value_or(0) : 0;
    if (now - last >= kLostAfter) return true;
  }
  return false;
}

}  // namespace headend
