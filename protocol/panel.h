// The chassis's front panel for clients: the content of its LCD, and the names of its keys.
// docs/management-datagram.md describes the records.
#pragma once

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/bytes.h"
#include "platform/panel.h"

namespace protocol {

using base::Bytes;

inline constexpr int kLcdWidth = 128;
inline constexpr int kLcdHeight = 64;
inline constexpr int kLcdRows = 4;  // of text

// A character on the LCD: 8 pixels wide if it is ASCII, else 16.
struct LcdCharacter {
  u8 row = 0;  // 0..3
  u8 x = 0;    // its left pixel
  bool inverse = false;
  char32_t character = U' ';
};

struct LcdImage {
  std::array<u8, std::size_t{kLcdWidth} / 8 * kLcdHeight>
      pixels{};                          // by line, the left pixel in the high bit
  std::vector<LcdCharacter> characters;  // by row and x; none for blanks

  bool pixel(int x, int y) const {
    return ((pixels[static_cast<std::size_t>(y * kLcdWidth + x) / 8] >> (7 - x % 8)) & 1) != 0;
  }
  // A row as UTF-8 with one blank per empty 8 pixels, without blanks at its end.
  std::string text(int row) const;
  // The same for operators: '>' before a row that is inverse from its left edge on, a blank before any other
  // that is not empty; elsewhere the inverse characters are in brackets.
  std::string markedText(int row) const;
};

// The data of a reply to kLcd; nullopt if it is not valid.
Bytes encode(const LcdImage& lcd);
std::optional<LcdImage> decodeLcd(std::span<const u8> data);

// "up", "down", "left", "right", "ok", "cancel"; nullopt for any other text.
std::optional<chassis::PanelKey> keyOf(std::string_view name);

}  // namespace protocol
