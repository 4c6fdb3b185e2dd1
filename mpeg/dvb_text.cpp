#include "mpeg/dvb_text.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/text.h"

namespace mpeg {
namespace {

struct Coding {
  std::string table;      // its iconv name; empty if unknown
  std::size_t selection;  // bytes at the start of the text that select it
  bool byteControls;      // 0x80 to 0x9F are controls, one byte each
};

Coding codingOf(std::span<const u8> text) {
  if (text.empty() || text[0] >= 0x20) return {.table = "ISO6937", .selection = 0, .byteControls = true};
  const u8 selector = text[0];
  if (selector >= 0x01 && selector <= 0x0B && selector != 0x08) {
    return {.table = fmt::format("ISO-8859-{}", selector + 4), .selection = 1, .byteControls = true};
  }
  if (selector == 0x10) {
    const bool known = text.size() >= 3 && text[1] == 0 && text[2] >= 1 && text[2] <= 15 && text[2] != 12;
    return {.table = known ? fmt::format("ISO-8859-{}", text[2]) : "", .selection = 3, .byteControls = true};
  }
  constexpr const char* kWide[] = {"UCS-2BE", "EUC-KR", "GBK", "BIG5", "UTF-8"};
  if (selector >= 0x11 && selector <= 0x15)
    return {.table = kWide[selector - 0x11], .selection = 1, .byteControls = false};
  return {.table = "", .selection = selector == 0x1F ? 2U : 1U, .byteControls = true};
}

std::string onlyAscii(const std::string& bytes) {
  std::string result;
  for (const char c : bytes) {
    if (static_cast<unsigned char>(c) < 0x80)
      result += c;
    else
      result += base::kReplacement;
  }
  return result;
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

std::string dvbText(std::span<const u8> text) {
  const Coding coding = codingOf(text);
  const auto body = text.subspan(std::min(coding.selection, text.size()));
  const std::string bytes =
      coding.byteControls ? withoutByteControls(body) : std::string(body.begin(), body.end());
  const auto converted = coding.table.empty() ? std::nullopt : base::toUtf8(coding.table, bytes);
  return base::printable(converted ? *converted : onlyAscii(bytes));
}

}  // namespace mpeg
