#include "base/text.h"

#include <fmt/format.h>
#include <iconv.h>

#include <algorithm>
#include <array>
#include <boost/locale/utf.hpp>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

namespace base {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";  // U+FFFD

using Utf8 = boost::locale::utf::utf_traits<char>;
using CodePoint = boost::locale::utf::code_point;

// Characters that act on the terminal or on the order of the characters around them; U+E080 to U+E09F are the
// controls of DVB in tables of more than one byte a character.
bool isHidden(CodePoint c) {
  constexpr std::pair<CodePoint, CodePoint> kHidden[] = {
      {0x00, 0x1F},     {0x7F, 0x9F},     {0xAD, 0xAD},     {0x61C, 0x61C},
      {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x206F}, {0xE000, 0xF8FF},
      {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xFFFE, 0xFFFF}, {0xE0000, 0x10FFFF},
  };
  return std::ranges::any_of(kHidden,
                             [c](const auto& range) { return c >= range.first && c <= range.second; });
}

// Nothing when the C library does not know one of the encodings.
std::optional<std::string> convert(const char* fromEncoding, std::string_view bytes,
                                   const char* toEncoding = "UTF-8",
                                   std::string_view replacement = kReplacement) {
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

// ---- Text of DVB tables

struct Coding {
  std::string table = "ASCII";  // its iconv name; ASCII for an unknown one
  std::size_t selection = 1;    // bytes at the start of the text that select it
  bool byteControls = true;     // 0x80 to 0x9F are controls, one byte each
};

Coding codingOf(std::span<const u8> text) {
  constexpr const char* kWide[] = {"UCS-2BE", "EUC-KR", "GBK", "BIG5", "UTF-8"};
  if (text.empty() || text[0] >= 0x20) return {.table = "ISO6937", .selection = 0};
  const u8 selector = text[0];
  if (selector >= 0x01 && selector <= 0x0B && selector != 0x08)
    return {.table = fmt::format("ISO-8859-{}", selector + 4)};
  if (selector >= 0x11 && selector <= 0x15) return {.table = kWide[selector - 0x11], .byteControls = false};
  if (selector != 0x10) return {.selection = selector == 0x1F ? 2U : 1U};
  const bool known = text.size() >= 3 && text[1] == 0 && text[2] >= 1 && text[2] <= 15 && text[2] != 12;
  return {.table = known ? fmt::format("ISO-8859-{}", text[2]) : "ASCII", .selection = 3};
}

// In tables of one byte a character, 0x8A breaks the line and its neighbours switch emphasis.
std::string withoutByteControls(std::span<const u8> text) {
  std::string result;
  for (const u8 byte : text) {
    if (byte == 0x8A)
      result += ' ';
    else if (byte < 0x80 || byte > 0x9F)
      result += static_cast<char>(byte);
  }
  return result;
}

}  // namespace

std::string utf8OfGbk(std::string_view gbk) {
  return required(convert("GBK", gbk));
}

std::string gbkOfUtf8(std::string_view utf8) {
  return required(convert("UTF-8", utf8, "GBK", "?"));
}

void appendUtf8(std::string& text, char32_t character) {
  Utf8::encode(character, std::back_inserter(text));
}

std::string printable(std::string_view text) {
  std::string result;
  for (const char* at = text.data(); at != text.data() + text.size();) {
    const char* const start = at;
    const CodePoint point = Utf8::decode(at, text.data() + text.size());
    if (!boost::locale::utf::is_valid_codepoint(point)) {
      result += kReplacement;
      at = start + 1;
    } else if (point == '\n' || point == '\t' || point == '\r' || point == 0xE08A || point == 0x2028) {
      result += ' ';
    } else if (!isHidden(point)) {
      result.append(start, at);
    }
  }
  return result;
}

std::string dvbText(std::span<const u8> text) {
  const Coding coding = codingOf(text);
  const auto body = text.subspan(std::min(coding.selection, text.size()));
  const std::string bytes =
      coding.byteControls ? withoutByteControls(body) : std::string(body.begin(), body.end());
  const auto converted = convert(coding.table.c_str(), bytes);
  return printable(converted ? *converted : convert("ASCII", bytes).value());
}

}  // namespace base
