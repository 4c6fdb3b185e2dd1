#include "headend/firmware/panel/panel.h"

#include <algorithm>

namespace headend {

void Panel::provide(BackEnd& backEnd) {
  using enum protocol::Operation;
  using protocol::Request;
  backEnd.provide(kLcd, BackEnd::Target::kChassis, {}, [this](const Request&, base::Bytes& reply) {
    reply = protocol::encode(shown());
    return protocol::kDone;
  });
  backEnd.provide(kKey, BackEnd::Target::kChassis, 1, [this](const Request& request, base::Bytes&) -> u32 {
    const u8 key = request.data[0];
    if (key < chassis::kKeyConfirm || key > chassis::kKeyRight) return protocol::kUnknownKey;
    if (!keys.press(static_cast<chassis::PanelKey>(key))) return protocol::kTooManyKeys;
    messages_.clear();
    return protocol::kDone;
  });
}

void Panel::start() {
  task_ = kernel_.spawn("tMen", kPriority, [this] { menu_.run(); });
}

void Panel::showHeading(const chassis::item_t& item) {
  menuLcd_.clear();
  menuLcd_.printRow(0, menu_.labelOf(item));
}

Lcd& Panel::layer() {
  const int task = kernel_.current() == nullptr ? -1 : kernel_.current()->id;
  if (task == task_) return menuLcd_;
  dropOldMessages();
  if (messages_.empty() || messages_.back().task != task) {
    const Nanos from = messages_.empty() ? kernel_.now() : messages_.back().until;
    messages_.push_back({task, from + kMessageTime, {}});
  }
  return messages_.back().lcd;
}

const protocol::LcdImage& Panel::shown() {
  dropOldMessages();
  return (messages_.empty() ? menuLcd_ : messages_.front().lcd).shown();
}

void Panel::dropOldMessages() {
  while (!messages_.empty() && messages_.front().until <= kernel_.now()) messages_.pop_front();
}

}  // namespace headend
