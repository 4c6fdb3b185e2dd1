#include "client/panel.h"

#include <algorithm>
#include <stdexcept>

#include "client/chassis_services.h"
#include "platform/wire.h"

namespace client {
namespace {

constexpr std::size_t kCharacterSize = 8;

void append(std::string& utf8, char32_t character) {
  if (character < 0x80) {
    utf8 += static_cast<char>(character);
  } else if (character < 0x800) {
    utf8 += static_cast<char>(0xC0 | character >> 6);
    utf8 += static_cast<char>(0x80 | (character & 0x3F));
  } else {  // nothing on the LCD lies beyond the first plane
    utf8 += static_cast<char>(0xE0 | (character >> 12 & 0xF));
    utf8 += static_cast<char>(0x80 | (character >> 6 & 0x3F));
    utf8 += static_cast<char>(0x80 | (character & 0x3F));
  }
}

}  // namespace

std::string Lcd::text(int row) const {
  std::string utf8;
  int at = 0;
  for (const LcdCharacter& c : characters) {
    if (c.row != row) continue;
    for (; at + 8 <= c.x + 7; at += 8) utf8 += ' ';
    append(utf8, c.character);
    at = c.x + (c.character < 0x80 ? 8 : 16);
  }
  while (!utf8.empty() && utf8.back() == ' ') utf8.pop_back();
  return utf8;
}

Bytes encode(const Lcd& lcd) {
  Bytes data(lcd.pixels.begin(), lcd.pixels.end());
  for (const LcdCharacter& c : lcd.characters) {
    data.insert(data.end(), {c.row, c.x, static_cast<u8>(c.inverse), 0});
    data.resize(data.size() + sizeof(u32));
    wire::put32(&data[data.size() - sizeof(u32)], c.character);
  }
  return data;
}

Lcd readLcd(Link& link) {
  const std::string what = "read the LCD";
  const Bytes reply = ask(link, Operation::kLcd, {}, {}, what);
  Lcd lcd;
  if (reply.size() < lcd.pixels.size() || (reply.size() - lcd.pixels.size()) % kCharacterSize != 0)
    misshapen(what);
  std::copy_n(reply.begin(), lcd.pixels.size(), lcd.pixels.begin());
  for (std::size_t at = lcd.pixels.size(); at < reply.size(); at += kCharacterSize) {
    lcd.characters.push_back({.row = reply[at],
                              .x = reply[at + 1],
                              .inverse = reply[at + 2] != 0,
                              .character = wire::get32(&reply[at + 4])});
  }
  return lcd;
}

void pressKey(Link& link, chassis::PanelKey key) {
  ask(link, Operation::kKey, {}, {key}, "press a key");
}

chassis::PanelKey keyOf(std::string_view name) {
  struct Name {
    std::string_view name;
    chassis::PanelKey key;
  };
  constexpr Name kNames[] = {{"up", chassis::kKeyUp},      {"down", chassis::kKeyDown},
                             {"left", chassis::kKeyLeft},  {"right", chassis::kKeyRight},
                             {"ok", chassis::kKeyConfirm}, {"cancel", chassis::kKeyCancel}};
  for (const Name& row : kNames) {
    if (row.name == name) return row.key;
  }
  throw std::invalid_argument("'" + std::string(name) + "' is no key: up, down, left, right, ok or cancel");
}

}  // namespace client
