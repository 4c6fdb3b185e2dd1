#include "client/dvb_text.h"

#include <fmt/format.h>
#include <iconv.h>

#include <array>
#include <cerrno>

namespace client {
namespace {

using CodePoint = char32_t;
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

struct Coding {
  std::string table;      // as iconv names it; empty for one that nobody knows
  std::size_t selection;  // bytes at the start of the text that select it
  bool byteControls;      // 0x80 to 0x9F are controls, one byte each
};

Coding codingOf(std::span<const u8> text) {
  if (text.empty() || text[0] >= 0x20) return {.table = "ISO6937", .selection = 0, .byteControls = true};
  const u8 selector = text[0];
  if (selector >= 0x01 && selector <= 0x0B && selector != 0x08) {
    return {.table = fmt::format("ISO-8859-{}", selector + 4), .selection = 1, .byteControls = true};
  }
  switch (selector) {
    case 0x10: {
      const bool known = text.size() >= 3 && text[1] == 0 && text[2] >= 1 && text[2] <= 15 && text[2] != 12;
      return {
          .table = known ? fmt::format("ISO-8859-{}", text[2]) : "", .selection = 3, .byteControls = true};
    }
    case 0x11:
      return {.table = "UCS-2BE", .selection = 1, .byteControls = false};
    case 0x12:
      return {.table = "EUC-KR", .selection = 1, .byteControls = false};
    case 0x13:
      return {.table = "GBK", .selection = 1, .byteControls = false};
    case 0x14:
      return {.table = "BIG5", .selection = 1, .byteControls = false};
    case 0x15:
      return {.table = "UTF-8", .selection = 1, .byteControls = false};
    case 0x1F:
      return {.table = "", .selection = 2, .byteControls = true};
    default:
      return {.table = "", .selection = 1, .byteControls = true};
  }
}

class Converter {
 public:
  explicit Converter(const std::string& table) : handle_(iconv_open("UTF-8", table.c_str())) {}
  ~Converter() {
    if (known()) iconv_close(handle_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;

  // iconv_open fails with the pointer value -1.
  bool known() const { return reinterpret_cast<std::intptr_t>(handle_) != -1; }

  std::string convert(std::string bytes) {
    std::string result;
    char* in = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
      std::array<char, 256> buffer{};
      char* out = buffer.data();
      std::size_t room = buffer.size();
      const std::size_t done = iconv(handle_, &in, &left, &out, &room);
      const int error = errno;
      result.append(buffer.data(), buffer.size() - room);
      if (done != static_cast<std::size_t>(-1) || error == E2BIG) continue;
      result += kReplacement;
      ++in;
      --left;
    }
    // What a table with combining characters still holds back.
    std::array<char, 32> buffer{};
    char* out = buffer.data();
    std::size_t room = buffer.size();
    iconv(handle_, nullptr, nullptr, &out, &room);
    return result.append(buffer.data(), buffer.size() - room);
  }

 private:
  iconv_t handle_;
};

std::string onlyAscii(const std::string& bytes) {
  std::string result;
  for (const char c : bytes) {
    if (static_cast<unsigned char>(c) < 0x80)
      result += c;
    else
      result += kReplacement;
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

struct Decoded {
  CodePoint point;
  std::size_t size;  // 0 when the bytes are no UTF-8
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

}  // namespace

std::string dvbText(std::span<const u8> text) {
  const Coding coding = codingOf(text);
  const auto body = text.subspan(std::min(coding.selection, text.size()));
  std::string bytes = coding.byteControls ? withoutByteControls(body) : std::string(body.begin(), body.end());
  Converter converter(coding.table);
  const bool known = !coding.table.empty() && converter.known();
  return printable(known ? converter.convert(std::move(bytes)) : onlyAscii(bytes));
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

}  // namespace client
