#include "base/text.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>

namespace base {
namespace {

using CodePoint = char32_t;

struct Decoded {
  CodePoint point;
  std::size_t size;  // 0 if the bytes are not UTF-8
};

Decoded decodeUtf8(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return {.point = first, .size = 1};
  const std::size_t size = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4 || text.size() < size) return {.point = 0, .size = 0};
  CodePoint point = first & (0x7Fu >> size);
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return {.point = 0, .size = 0};
    point = point << 6 | (byte(i) & 0x3Fu);
  }
  constexpr std::array<CodePoint, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  const bool surrogate = point >= 0xD800 && point <= 0xDFFF;
  if (point < kSmallest[size] || point > 0x10FFFF || surrogate) return {.point = 0, .size = 0};
  return {.point = point, .size = size};
}

// Characters that act on the terminal or on the order of what stands around them; U+E080 to U+E09F are the
// controls of DVB in tables of more than one byte a character.
bool isHidden(CodePoint c) {
  constexpr std::pair<CodePoint, CodePoint> kHidden[] = {
      {0x00, 0x1F},     {0x7F, 0x9F},     {0xAD, 0xAD},     {0x61C, 0x61C},
      {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x206F}, {0xE000, 0xF8FF},
      {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xFFFE, 0xFFFF}, {0xE0000, 0x10FFFF},
  };
  for (const auto& [first, last] : kHidden) {
    if (c >= first && c <= last) return true;
  }
  return false;
}

bool breaksLine(CodePoint c) {
  return c == '\n' || c == '\t' || c == '\r' || c == 0xE08A || c == 0x2028;
}

// Nothing when the C library does not know one of the encodings.
std::optional<std::string> convert(const char* fromEncoding, const char* toEncoding, std::string_view bytes,
                                   std::string_view replacement) {
  iconv_t handle = iconv_open(toEncoding, fromEncoding);
  if (reinterpret_cast<std::intptr_t>(handle) == -1) return std::nullopt;
  const std::unique_ptr<void, decltype(&iconv_close)> owner(handle, iconv_close);
  std::string result;
  std::string from(bytes);
  char* in = from.data();
  std::size_t left = from.size();
  for (bool isDone = false; !isDone;) {
    std::array<char, 256> buffer{};
    char* out = buffer.data();
    std::size_t room = buffer.size();
    isDone = left == 0;  // then the rest that an encoding with combining characters still holds
    const std::size_t converted = iconv(handle, isDone ? nullptr : &in, &left, &out, &room);
    const int error = errno;
    result.append(buffer.data(), buffer.size() - room);
    if (isDone || converted != static_cast<std::size_t>(-1) || error == E2BIG) continue;
    result += replacement;
    ++in;
    --left;
  }
  return result;
}

std::string required(std::optional<std::string> text) {
  if (!text)
    throw std::runtime_error("the C library cannot convert GBK: its gconv modules are not installed");
  return *std::move(text);
}

}  // namespace

std::optional<std::string> toUtf8(const std::string& encoding, std::string_view bytes) {
  return convert(encoding.c_str(), "UTF-8", bytes, kReplacement);
}

std::string utf8OfGbk(std::string_view gbk) {
  return required(convert("GBK", "UTF-8", gbk, kReplacement));
}

std::string gbkOfUtf8(std::string_view utf8) {
  return required(convert("UTF-8", "GBK", utf8, "?"));
}

void appendUtf8(std::string& text, char32_t character) {
  if (character < 0x80) {
    text += static_cast<char>(character);
  } else if (character < 0x800) {
    text += static_cast<char>(0xC0 | character >> 6);
    text += static_cast<char>(0x80 | (character & 0x3F));
  } else {  // all these characters are in the first plane
    text += static_cast<char>(0xE0 | (character >> 12 & 0xF));
    text += static_cast<char>(0x80 | (character >> 6 & 0x3F));
    text += static_cast<char>(0x80 | (character & 0x3F));
  }
}

std::string printable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const auto [point, size] = decodeUtf8(text);
    if (size == 0)
      result += kReplacement;
    else if (breaksLine(point))
      result += ' ';
    else if (!isHidden(point))
      result += text.substr(0, size);
    text.remove_prefix(std::max<std::size_t>(size, 1));
  }
  return result;
}

}  // namespace base
