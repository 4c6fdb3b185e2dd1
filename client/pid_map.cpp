#include "client/pid_map.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cstdint>
#include <iterator>
#include <map>
#include <sstream>
#include <system_error>
#include <utility>

#include "base/files.h"
#include "base/numbers.h"
#include "client/chassis_services.h"

namespace client {
namespace {

using Entries = std::vector<MapEntry>;

constexpr std::string_view kHeader = "src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type";

u32 parseField(const std::string& field, const MapColumn& column, const std::string& where) {
  const auto& [name, lowest, highest] = column;
  const std::string text = boost::trim_copy(field);
  const auto value = base::parseNumber<u64>(text);
  if (!value) fail("{}: {} '{}' is no number", where, name, text);
  if (*value < lowest || *value > highest)
    fail("{}: {} {} is not from {} to {}", where, name, text, lowest, highest);
  return static_cast<u32>(*value);
}

MapEntry parseEntry(const std::string& line, const std::string& where) {
  std::vector<std::string> fields;
  boost::split(fields, line, boost::is_any_of(","));
  constexpr std::size_t kCount = kMapColumns.size();
  if (fields.size() != kCount) fail("{}: {} fields where there should be {}", where, fields.size(), kCount);
  MapValues values{};
  for (std::size_t i = 0; i < kCount; ++i) values[i] = parseField(fields[i], kMapColumns[i], where);
  return mapEntryOf(values);
}

// Empty if the entry is right by itself.
std::string errorOf(const MapEntry& e, const std::optional<InputCounts>& sources) {
  constexpr u16 kHighestType = 0xFF;
  if (e.sourceSlot >= MAX_BOARD_NUM)
    return fmt::format("src_slot {} is above {}", e.sourceSlot + 1, MAX_BOARD_NUM);
  if (e.sourcePort >= kInputsPerCard)
    return fmt::format("src_port {} is above {}", u64{e.sourcePort} + 1, kInputsPerCard);
  for (const auto& [column, pid] : {std::pair("src_pid", e.sourcePid), std::pair("dst_pid", e.pid)}) {
    if (pid > kNullPid) return fmt::format("{} {:#06x} is above 0x1FFF", column, pid);
    if (pid == kNullPid) return fmt::format("{} 0x1FFF is that of null packets", column);
  }
  if (e.type > kHighestType) return fmt::format("type {} is above {}", e.type, kHighestType);
  if (!sources) return "";
  const auto card = sources->find(e.sourceSlot);
  if (card == sources->end()) return fmt::format("there is no source card in slot {}", e.sourceSlot + 1);
  if (e.sourcePort < card->second) return "";
  return fmt::format("the source card in slot {} has no input {}: it has {}", e.sourceSlot + 1,
                     e.sourcePort + 1, card->second);
}

// The router takes the first of two entries of one source, and two sources on one PID break its continuity.
void refuseDoubles(const Entries& entries, const ChangeOptions& options) {
  std::map<u32, std::size_t> sources;
  std::map<u16, std::size_t> pids;
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const MapEntry& e = entries[i];
    if (const auto [source, isNew] = sources.emplace(sourceKey(e), i); !isNew) {
      fail("{} and {} have the same source, PID {:#06x} of {}", options.nameOf(source->second),
           options.nameOf(i), e.sourcePid, inputName({e.sourceSlot, e.sourcePort}));
    }
    if (const auto [pid, isNew] = pids.emplace(e.pid, i); !isNew) {
      fail("{} and {} bring two sources onto dst_pid {:#06x}", options.nameOf(pid->second), options.nameOf(i),
           e.pid);
    }
  }
}

Entries withoutBlanks(Entries entries, const ChangeOptions& options) {
  if (const std::size_t blanks = std::erase_if(entries, isBlank); blanks > 0)
    options.note(fmt::format("{} entries that were announced and never came are left out", blanks));
  return entries;
}

// The map that is sent under the lock.
Entries mapOfRelease(Link& link, const ChannelState& state, ReleaseBy by, const Entries& entries,
                     const ChangeOptions& options) {
  if (by == ReleaseBy::kMap) return withoutBlanks(entries, options);
  if (by == ReleaseBy::kRecord) return withoutBlanks(state.map.entries, options);
  options.note("the router stores no programme numbers and types: they become 0");
  try {
    return withoutBlanks(entriesOf(routerMap(link, state.channel)), options);
  } catch (const Error& e) {
    if (e.gotNoReply()) throw;
    fail("nothing was changed: {}; --restore FILE ends the lock with a map of yours", e.what());
  }
}

}  // namespace

// ---- The file

MapEntry mapEntryOf(const MapValues& values) {
  return {.sourceSlot = static_cast<u16>(values[0] - 1),
          .sourcePort = values[1] - 1,
          .sourcePid = static_cast<u16>(values[2]),
          .sourceProgramme = static_cast<u16>(values[3]),
          .pid = static_cast<u16>(values[4]),
          .programme = static_cast<u16>(values[5]),
          .type = static_cast<u16>(values[6])};
}

MapValues valuesOf(const MapEntry& e) {
  return {e.sourceSlot + 1u, e.sourcePort + 1, e.sourcePid, e.sourceProgramme, e.pid, e.programme, e.type};
}

MapFile parseMapFile(std::string_view text, const std::string& name) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  std::istringstream lines{std::string(text)};
  MapFile file;
  bool headed = false;
  std::string line;
  for (std::size_t number = 1; std::getline(lines, line); ++number) {
    boost::trim(line);
    if (line.empty() || line.front() == '#') continue;
    const std::string where = fmt::format("{} line {}", name, number);
    if (headed) {
      file.entries.push_back(parseEntry(line, where));
      file.lines.push_back(number);
    } else if (line != kHeader) {
      fail("{}: the header is not {}", where, kHeader);
    }
    headed = true;
  }
  if (!headed) fail("{}: there is no header {}", name, kHeader);
  return file;
}

MapFile readMapFile(const std::filesystem::path& file) {
  constexpr std::size_t kLongest = 1 << 20;  // many times a full map with comments
  try {
    return parseMapFile(base::readFile(file, kLongest), file.string());
  } catch (const std::system_error& e) {
    fail("{}: cannot be read: {}", file.string(), e.code().message());
  }
}

std::string mapFileText(const Entries& entries) {
  std::string text = fmt::format("{}\n", kHeader);
  for (const MapEntry& e : entries) {
    text += fmt::format("{},{},{:#06x},{},{:#06x},{},{}\n", e.sourceSlot + 1, e.sourcePort + 1, e.sourcePid,
                        e.sourceProgramme, e.pid, e.programme, e.type);
  }
  return text;
}

// ---- Checks and plans

void checkMap(const Entries& entries, const ChangeOptions& options) {
  if (entries.size() > kPidMapSize) {
    fail("{} is one too many: a map has at most {} entries, this one has {}", options.nameOf(kPidMapSize),
         kPidMapSize, entries.size());
  }
  for (std::size_t i = 0; i < entries.size(); ++i) {
    if (const auto error = errorOf(entries[i], options.sources); !error.empty())
      fail("{}: {}", options.nameOf(i), error);
  }
  refuseDoubles(entries, options);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const auto* own = std::ranges::find(kAllTables, std::optional(entries[i].pid), tablePid);
    if (own == kAllTables.end()) continue;
    options.note(fmt::format("{}: dst_pid {:#06x} is where the card sends its own tables ({})",
                             options.nameOf(i), entries[i].pid, tableName(*own)));
  }
}

ChannelChange planMap(Link& link, const Channel& channel, const Entries& entries,
                      const ChangeOptions& options) {
  checkMap(entries, options);
  ChannelChange change{
      .before = {.channel = channel, .map = readMapOnce(link, channel)}, .map = entries, .options = options};
  withoutBlanks(change.before.map.entries, options);
  change.check();
  return change;
}

ChannelChange planRelease(Link& link, const Channel& channel, ReleaseBy by, const Entries& entries,
                          const ChangeOptions& options) {
  ChannelChange change{
      .before = {.channel = channel, .map = readMapOnce(link, channel)}, .release = true, .options = options};
  if (!change.before.map.locked) {
    fail("the PID map of {} is not locked: there is nothing to release, nothing was changed",
         channelName(channel));
  }
  change.map = mapOfRelease(link, change.before, by, entries, options);
  change.check();
  return change;
}

}  // namespace client
