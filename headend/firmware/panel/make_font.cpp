// Makes the source of the panel's font at build time: the glyphs of ASCII and GB 2312, taken from a font in
// the .hex format (a code point, a colon, 16 rows of 8 or 16 pixels in hexadecimal; one glyph a line).
//   make_font FONT.hex OUT.cpp
#include <fmt/format.h>
#include <iconv.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

constexpr unsigned kFirstAscii = 0x20, kLastAscii = 0x7E;
constexpr unsigned kFirstOfSquare = 0xA1, kLastOfSquare = 0xFE, kLastRow = 0xF7;

std::map<unsigned, std::string> readFont(const char* path) {
  std::ifstream file(path);
  std::map<unsigned, std::string> rows;
  for (std::string line; std::getline(file, line);) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos) throw std::runtime_error(fmt::format("{}: no glyph: {}", path, line));
    rows[static_cast<unsigned>(std::stoul(line.substr(0, colon), nullptr, 16))] = line.substr(colon + 1);
  }
  if (rows.empty()) throw std::runtime_error(fmt::format("cannot read {}", path));
  return rows;
}

std::optional<unsigned> codePointOf(iconv_t converter, unsigned gbk) {
  char in[2] = {static_cast<char>(gbk >> 8), static_cast<char>(gbk & 0xFF)};
  unsigned char out[4] = {};
  char* from = in;
  char* to = reinterpret_cast<char*>(out);
  std::size_t left = sizeof in, room = sizeof out;
  if (iconv(converter, &from, &left, &to, &room) == static_cast<std::size_t>(-1) || room != 0) return {};
  return static_cast<unsigned>(out[0]) << 24 | static_cast<unsigned>(out[1]) << 16 |
         static_cast<unsigned>(out[2]) << 8 | out[3];
}

// A glyph of eight pixels fills the left half of its rows.
void write(std::FILE* out, unsigned code, unsigned character, const std::string& hex) {
  const std::size_t digits = hex.size() / 16;
  if (digits != 2 && digits != 4) throw std::runtime_error(fmt::format("glyph {:X} has {}", character, hex));
  fmt::print(out, "    {{{:#x}, {:#x}, {{", code, character);
  for (unsigned row = 0; row < 16; ++row) {
    fmt::print(out, "0x{}{},", hex.substr(row * digits, digits), digits == 2 ? "00" : "");
  }
  fmt::print(out, "}}}},\n");
}

void make(const char* font, const char* target) {
  const std::map<unsigned, std::string> glyphs = readFont(font);
  iconv_t converter = iconv_open("UTF-32BE", "GB2312");
  std::FILE* out = std::fopen(target, "w");
  if (out == nullptr) throw std::runtime_error(fmt::format("cannot write {}", target));
  fmt::print(
      out,
      "// Made at build time from the glyphs of GNU Unifont: GNU GPL version 2 or later with the font\n"
      "// embedding exception, or SIL OFL 1.1.\n"
      "#include \"headend/firmware/panel/font.h\"\n\n"
      "namespace headend {{\n\nconst Glyph kGlyphs[] = {{\n");
  std::size_t count = 0;
  const auto add = [&](unsigned code, unsigned character) {
    const auto glyph = glyphs.find(character);
    if (glyph == glyphs.end()) return;
    write(out, code, character, glyph->second);
    ++count;
  };
  for (unsigned code = kFirstAscii; code <= kLastAscii; ++code) add(code, code);
  for (unsigned high = kFirstOfSquare; high <= kLastRow; ++high) {
    for (unsigned low = kFirstOfSquare; low <= kLastOfSquare; ++low) {
      const unsigned code = high << 8 | low;
      if (const std::optional<unsigned> character = codePointOf(converter, code)) add(code, *character);
    }
  }
  fmt::print(out, "}};\nconst std::size_t kGlyphCount = {};\n\n}}  // namespace headend\n", count);
  const bool good = std::ferror(out) == 0;
  if (std::fclose(out) != 0 || !good) throw std::runtime_error(fmt::format("cannot write {}", target));
  iconv_close(converter);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fmt::print(stderr, "make_font FONT.hex OUT.cpp\n");
    return 2;
  }
  try {
    make(argv[1], argv[2]);
    return 0;
  } catch (const std::exception& e) {
    fmt::print(stderr, "make_font: {}\n", e.what());
    return 1;
  }
}
