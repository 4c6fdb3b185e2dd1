#include "protocol/panel.h"

#include <algorithm>
#include <iterator>

#include "base/text.h"

namespace protocol {
namespace {

struct CharacterRecord {
  u8 row, x, inverse, reserved;
  wire::U32 character;
};
static_assert(sizeof(CharacterRecord) == 8);

struct KeyName {
  std::string_view name;
  chassis::PanelKey key;
};
constexpr KeyName kKeys[] = {{"up", chassis::kKeyUp},      {"down", chassis::kKeyDown},
                             {"left", chassis::kKeyLeft},  {"right", chassis::kKeyRight},
                             {"ok", chassis::kKeyConfirm}, {"cancel", chassis::kKeyCancel}};

std::string rowText(const std::vector<LcdCharacter>& characters, int row, bool hasBrackets) {
  std::string utf8;
  int at = 0;
  bool isOpen = false;
  const auto bracket = [&](bool inverse) {
    if (hasBrackets && isOpen != inverse) utf8 += inverse ? '[' : ']';
    isOpen = inverse;
  };
  for (const LcdCharacter& c : characters) {
    if (c.row != row) continue;
    if (at < c.x) bracket(false);
    for (; at + 8 <= c.x + 7; at += 8) utf8 += ' ';
    bracket(c.inverse);
    base::appendUtf8(utf8, c.character);
    at = c.x + (c.character < 0x80 ? 8 : 16);
  }
  bracket(false);
  while (!utf8.empty() && utf8.back() == ' ') utf8.pop_back();
  return utf8;
}

}  // namespace

std::string LcdImage::text(int row) const {
  return rowText(characters, row, false);
}

std::string LcdImage::markedText(int row) const {
  const bool isChosen = std::ranges::any_of(
      characters, [row](const LcdCharacter& c) { return c.row == row && c.x == 0 && c.inverse; });
  const std::string text = rowText(characters, row, !isChosen);
  return text.empty() && !isChosen ? text : (isChosen ? '>' : ' ') + text;
}

Bytes encode(const LcdImage& lcd) {
  Bytes data(lcd.pixels.begin(), lcd.pixels.end());
  for (const LcdCharacter& c : lcd.characters) {
    CharacterRecord record{.row = c.row, .x = c.x, .inverse = c.inverse, .reserved = 0, .character = {}};
    record.character = c.character;
    base::append(data, base::bytesOf(record));
  }
  return data;
}

std::optional<LcdImage> decodeLcd(std::span<const u8> data) {
  LcdImage lcd;
  if (data.size() < lcd.pixels.size()) return std::nullopt;
  std::copy_n(data.begin(), lcd.pixels.size(), lcd.pixels.begin());
  data = data.subspan(lcd.pixels.size());
  if (data.size() % sizeof(CharacterRecord) != 0) return std::nullopt;
  for (; !data.empty(); data = data.subspan(sizeof(CharacterRecord))) {
    const auto record = base::recordOf<CharacterRecord>(data);
    lcd.characters.push_back(
        {.row = record.row, .x = record.x, .inverse = record.inverse != 0, .character = record.character});
  }
  return lcd;
}

std::optional<chassis::PanelKey> keyOf(std::string_view name) {
  const auto* found = std::ranges::find(kKeys, name, &KeyName::name);
  return found == std::end(kKeys) ? std::nullopt : std::optional(found->key);
}

}  // namespace protocol
