#include "tools/panel/screen.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cwchar>

namespace tools {

Screen::Screen(int width, int height)
    : width_(std::max(width, 0)),
      height_(std::max(height, 0)),
      cells_(static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_)) {}

int Screen::put(int x, int y, wchar_t character, Look look, int end) {
  const int columns = character == kCovered ? 0 : std::max(wcwidth(character), 0);
  if (columns == 0 || x < 0 || y < 0 || y >= height_ || x + columns > std::min(end, width_)) return 0;
  if (isCovered(x, y)) cells_[index(x - 1, y)].character = L' ';
  if (isCovered(x + columns, y)) cells_[index(x + columns, y)].character = L' ';
  cells_[index(x, y)] = {.character = character, .look = look};
  if (columns == 2) cells_[index(x + 1, y)] = {.character = kCovered, .look = look};
  return columns;
}

int Screen::text(int x, int y, std::string_view utf8, Look look, int end) {
  std::mbstate_t state{};
  while (!utf8.empty()) {
    wchar_t character = L'?';
    std::size_t size = std::mbrtowc(&character, utf8.data(), utf8.size(), &state);
    if (size == 0 || size > utf8.size()) {  // a zero, or invalid UTF-8
      character = L'?';
      size = 1;
      state = {};
    }
    const int columns = put(x, y, character, look, end);
    if (columns == 0 && wcwidth(character) > 0) break;  // no room
    x += columns;
    utf8.remove_prefix(size);
  }
  return x;
}

std::string Screen::line(int y) const {
  std::string result;
  std::mbstate_t state{};
  for (int x = 0; x < width_; ++x) {
    if (at(x, y).character == kCovered) continue;
    std::array<char, MB_LEN_MAX> bytes{};
    const std::size_t size = std::wcrtomb(bytes.data(), at(x, y).character, &state);
    if (size <= bytes.size()) result.append(bytes.data(), size);
  }
  result.resize(result.find_last_not_of(' ') + 1);
  return result;
}

}  // namespace tools
