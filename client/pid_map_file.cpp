#include "client/pid_map_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <system_error>

#include "base/files.h"
#include "base/numbers.h"

namespace client {
namespace {

constexpr std::string_view kHeader = "src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type";

// What the card's record can hold: a rescue file has to carry whatever stood there.
struct Column {
  const char* name;
  u32 lowest;
  u32 highest;
};
constexpr std::array kColumns = {
    Column{"src_slot", 1, MAX_BOARD_NUM},
    Column{"src_port", 1, 0x100},
    Column{"src_pid", 0, 0xFFFF},
    Column{"src_programme", 0, 0xFFFF},
    Column{"dst_pid", 0, 0xFFFF},
    Column{"dst_programme", 0, 0xFFFF},
    Column{"type", 0, 0xFF},
};
using Fields = std::array<u32, kColumns.size()>;

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const auto first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Takes what stands before the separator off the text.
std::string_view next(std::string_view& text, char separator) {
  const auto end = text.find(separator);
  const std::string_view part = text.substr(0, end);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  return part;
}

u32 parseField(std::string_view text, const Column& column, const std::string& where) {
  const auto value = base::parseNumber<std::uint64_t>(text);
  if (!value) throw Error(fmt::format("{}: {} '{}' is no number", where, column.name, text));
  if (*value < column.lowest || *value > column.highest) {
    throw Error(fmt::format("{}: {} {} is not from {} to {}", where, column.name, text, column.lowest,
                            column.highest));
  }
  return static_cast<u32>(*value);
}

MapEntry parseEntry(std::string_view line, const std::string& where) {
  const auto count = static_cast<std::size_t>(std::ranges::count(line, ',')) + 1;
  if (count != kColumns.size()) {
    throw Error(fmt::format("{}: {} fields where there should be {}", where, count, kColumns.size()));
  }
  Fields fields{};
  for (std::size_t i = 0; i < kColumns.size(); ++i) {
    fields[i] = parseField(trimmed(next(line, ',')), kColumns[i], where);
  }
  return {.sourceSlot = static_cast<u16>(fields[0] - 1),
          .sourcePort = fields[1] - 1,
          .sourcePid = static_cast<u16>(fields[2]),
          .sourceProgramme = static_cast<u16>(fields[3]),
          .pid = static_cast<u16>(fields[4]),
          .programme = static_cast<u16>(fields[5]),
          .type = static_cast<u16>(fields[6])};
}

}  // namespace

MapFile parseMapFile(std::string_view text, const std::string& name) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  MapFile file;
  bool headed = false;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::string_view line = trimmed(next(text, '\n'));
    if (line.empty() || line.front() == '#') continue;
    const std::string where = fmt::format("{} line {}", name, number);
    if (headed) {
      file.entries.push_back(parseEntry(line, where));
      file.lines.push_back(number);
    } else if (line == kHeader) {
      headed = true;
    } else {
      throw Error(fmt::format("{}: the header is not {}", where, kHeader));
    }
  }
  if (!headed) throw Error(fmt::format("{}: there is no header {}", name, kHeader));
  return file;
}

MapFile readMapFile(const std::filesystem::path& file) {
  constexpr std::size_t kLongest = 1 << 20;  // many times a full map with comments
  try {
    return parseMapFile(base::readFile(file, kLongest), file.string());
  } catch (const std::system_error& e) {
    throw Error(fmt::format("{}: cannot be read: {}", file.string(), e.code().message()));
  }
}

std::string mapFileText(const std::vector<MapEntry>& entries) {
  std::string text = fmt::format("{}\n", kHeader);
  for (const MapEntry& e : entries) {
    text += fmt::format("{},{},{:#06x},{},{:#06x},{},{}\n", e.sourceSlot + 1, e.sourcePort + 1, e.sourcePid,
                        e.sourceProgramme, e.pid, e.programme, e.type);
  }
  return text;
}

}  // namespace client
