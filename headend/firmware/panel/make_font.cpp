// Makes the source of the panel's font at build time: the glyphs of ASCII and GB 2312, taken from a font in
// the .hex format (a code point, a colon, 16 rows of 8 or 16 pixels in hexadecimal; one glyph a line).
//   make_font FONT.hex OUT.cpp
#include <fmt/format.h>
#include <iconv.h>

#include <cstdint>
#include <fstream>
#include <map>
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

// 0 if GB 2312 has no such character.
unsigned codePointOf(iconv_t converter, unsigned code) {
  char in[2] = {static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)};
  std::uint32_t out = 0;
  char* from = in;
  char* to = reinterpret_cast<char*>(&out);
  std::size_t left = sizeof in, room = sizeof out;
  return iconv(converter, &from, &left, &to, &room) == 0 && room == 0 ? out : 0;
}

// A glyph of eight pixels fills the left half of its rows.
std::string initializer(unsigned code, unsigned character, const std::string& hex) {
  const std::size_t digits = hex.size() / 16;
  if (digits != 2 && digits != 4) throw std::runtime_error(fmt::format("glyph {:X} has {}", character, hex));
  std::string text = fmt::format("    {{{:#x}, {:#x}, {{", code, character);
  for (unsigned row = 0; row < 16; ++row)
    text += fmt::format("0x{}{},", hex.substr(row * digits, digits), digits == 2 ? "00" : "");
  return text + "}},\n";
}

void make(const char* font, const char* target) {
  const std::map<unsigned, std::string> glyphs = readFont(font);
  std::ofstream out(target);
  out << "// Made at build time from the glyphs of GNU Unifont: GNU GPL version 2 or later with the font\n"
         "// embedding exception, or SIL OFL 1.1.\n"
         "#include \"headend/firmware/panel/lcd.h\"\n\n"
         "namespace headend {\n\nconst Glyph kGlyphs[] = {\n";
  std::size_t count = 0;
  const auto add = [&](unsigned code, unsigned character) {
    const auto glyph = glyphs.find(character);
    if (character == 0 || glyph == glyphs.end()) return;
    out << initializer(code, character, glyph->second);
    ++count;
  };
  for (unsigned code = kFirstAscii; code <= kLastAscii; ++code) add(code, code);
  auto* converter = iconv_open("UTF-32LE", "GB2312");
  for (unsigned high = kFirstOfSquare; high <= kLastRow; ++high) {
    for (unsigned low = kFirstOfSquare; low <= kLastOfSquare; ++low) {
      const unsigned code = high << 8 | low;
      add(code, codePointOf(converter, code));
    }
  }
  iconv_close(converter);
  out << fmt::format("}};\nconst std::size_t kGlyphCount = {};\n\n}}  // namespace headend\n", count);
  if (!out.flush()) throw std::runtime_error(fmt::format("cannot write {}", target));
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 3) throw std::invalid_argument("want FONT.hex OUT.cpp");
    make(argv[1], argv[2]);
    return 0;
  } catch (const std::exception& e) {
    fmt::print(stderr, "make_font: {}\n", e.what());
    return 1;
  }
}
