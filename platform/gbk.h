// Chinese text of the front panel and the alarms: UTF-8 in the sources, GBK in memory and datagrams. The
// compiler does the conversion; a character missing in the table is a compile error. Code points from
// Unicode, codes from GB 2312-80, whose 94 x 94 square is part of GBK.
#pragma once

#include <cstddef>

#include "platform/types.h"

namespace gbk {

struct Code {
  char32_t character;
  u16 gbk;
};

// Every character that the card's texts use, by code point.
inline constexpr Code kCodes[] = {
    {U'℃', 0xA1E6},  {U'一', 0xD2BB}, {U'二', 0xB6FE}, {U'件', 0xBCFE}, {U'入', 0xC8EB}, {U'关', 0xB9D8},
    {U'出', 0xB3F6}, {U'制', 0xD6C6}, {U'卡', 0xBFA8}, {U'口', 0xBFDA}, {U'号', 0xBAC5}, {U'器', 0xC6F7},
    {U'复', 0xB8B4}, {U'常', 0xB3A3}, {U'平', 0xC6BD}, {U'度', 0xB6C8}, {U'开', 0xBFAA}, {U'式', 0xCABD},
    {U'态', 0xCCAC}, {U'恢', 0xBBD6}, {U'打', 0xB4F2}, {U'无', 0xCEDE}, {U'本', 0xB1BE}, {U'模', 0xC4A3},
    {U'正', 0xD5FD}, {U'温', 0xCEC2}, {U'溢', 0xD2E7}, {U'点', 0xB5E3}, {U'版', 0xB0E6}, {U'状', 0xD7B4},
    {U'率', 0xC2CA}, {U'电', 0xB5E7}, {U'码', 0xC2EB}, {U'硬', 0xD3B2}, {U'端', 0xB6CB}, {U'符', 0xB7FB},
    {U'置', 0xD6C3}, {U'设', 0xC9E8}, {U'误', 0xCEF3}, {U'调', 0xB5F7}, {U'软', 0xC8ED}, {U'辑', 0xBCAD},
    {U'输', 0xCAE4}, {U'过', 0xB9FD}, {U'逻', 0xC2DF}, {U'错', 0xB4ED}, {U'闭', 0xB1D5}, {U'频', 0xC6B5},
    {U'高', 0xB8DF},
};

void characterMissing();  // never defined, and not constexpr: a call is a compile error

constexpr u16 codeOf(char32_t character) {
  for (const Code& code : kCodes) {
    if (code.character == character) return code.gbk;
  }
  characterMissing();
  return 0;
}

// A literal's text. A template argument.
template <std::size_t N>
struct Utf8 {
  char text[N] = {};
  static constexpr std::size_t kSize = N;
  constexpr Utf8(const char (&literal)[N]) {  // NOLINT(google-explicit-constructor)
    for (std::size_t i = 0; i < N; ++i) text[i] = literal[i];
  }
};

// GBK is never longer than UTF-8; the rest stays zero.
template <Utf8 S>
struct Converted {
  char text[S.kSize] = {};

  constexpr std::size_t length() const {
    std::size_t size = 0;
    while (text[size] != '\0') ++size;
    return size;
  }

  constexpr Converted() {
    std::size_t out = 0;
    for (std::size_t in = 0; S.text[in] != '\0';) {
      const auto lead = static_cast<u8>(S.text[in++]);
      if (lead < 0x80) {
        text[out++] = static_cast<char>(lead);
        continue;
      }
      // Two bytes up to U+07FF, three for the rest of the plane; nothing beyond it is in GB 2312.
      char32_t character = lead < 0xE0 ? lead & 0x1FU : lead & 0x0FU;
      for (int more = lead < 0xE0 ? 1 : 2; more > 0; --more) {
        character = character << 6 | (static_cast<u8>(S.text[in++]) & 0x3FU);
      }
      const u16 code = codeOf(character);
      text[out++] = static_cast<char>(code >> 8);
      text[out++] = static_cast<char>(code & 0xFF);
    }
  }
};

template <Utf8 S>
inline constexpr Converted<S> kConverted{};

}  // namespace gbk

// "频点"_gbk: the text in GBK, with static storage.
template <gbk::Utf8 S>
constexpr const char* operator""_gbk() {
  return gbk::kConverted<S>.text;
}
