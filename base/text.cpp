#include "base/text.h"

#include <iconv.h>

#include <array>
#include <boost/locale/utf.hpp>
#include <cerrno>
#include <cstdint>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <utility>

namespace base {
namespace {

using Utf8 = boost::locale::utf::utf_traits<char>;
using CodePoint = boost::locale::utf::code_point;

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
    } else if (breaksLine(point)) {
      result += ' ';
    } else if (!isHidden(point)) {
      result.append(start, at);
    }
  }
  return result;
}

}  // namespace base
