#include "headend/firmware/alarm_file.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <string_view>
#include <system_error>

#include "mpeg/section.h"

namespace headend {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPath = "/tffs0/alarms/history.dat";
constexpr std::size_t kLongest = 64U << 20;  // many times the size of the stored entries
constexpr std::string_view kMagic = "QAMALRM1";

// As it stands in memory, like the cards' records.
struct Entry {
  u32 check;  // CRC-32 of the following fields
  u32 at;
  std::uint64_t number;
  std::uint64_t ends;
  u8 kind;
  u8 reserved[7];
  chassis::alarm_t alarm;
};
static_assert(sizeof(Entry) == 32 + sizeof(chassis::alarm_t));
static_assert(offsetof(Entry, number) == 8 && offsetof(Entry, kind) == 24 && offsetof(Entry, alarm) == 32);

u32 checkOf(const Entry& entry) {
  const auto* bytes = reinterpret_cast<const u8*>(&entry);
  return mpeg::crc32({bytes + sizeof entry.check, sizeof entry - sizeof entry.check});
}

void put(base::Bytes& bytes, const AlarmRecord& event) {
  Entry entry{.check = 0,
              .at = event.at,
              .number = event.number,
              .ends = event.ends,
              .kind = static_cast<u8>(event.kind),
              .reserved = {},
              .alarm = event.alarm};
  entry.check = checkOf(entry);
  const auto* from = reinterpret_cast<const u8*>(&entry);
  bytes.insert(bytes.end(), from, from + sizeof entry);
}

struct Reading {
  std::deque<AlarmRecord> events;
  std::size_t entries = 0;
  std::size_t damaged = 0;  // entries
  bool cut = false;         // the last entry is incomplete, as after the end of a process during a write
};

Reading read(std::string_view bytes) {
  Reading reading;
  std::uint64_t last = 0;
  for (; bytes.size() >= sizeof(Entry); bytes.remove_prefix(sizeof(Entry))) {
    Entry entry;
    std::memcpy(&entry, bytes.data(), sizeof entry);
    ++reading.entries;
    if (entry.check != checkOf(entry) || entry.number <= last) {
      ++reading.damaged;
      continue;
    }
    last = entry.number;
    reading.events.push_back({.number = entry.number,
                              .ends = entry.ends,
                              .at = entry.at,
                              .kind = static_cast<protocol::AlarmEvent::Kind>(entry.kind),
                              .alarm = entry.alarm});
  }
  reading.cut = !bytes.empty();
  return reading;
}

}  // namespace

std::deque<AlarmRecord> AlarmFile::load() {
  const fs::path file = flash_.hostPath(kPath).value();
  std::error_code ignored;
  if (!fs::exists(file, ignored)) return {};
  std::string bytes;
  try {
    if (!fs::is_regular_file(file, ignored))  // a pipe would block the open
      throw std::system_error(std::make_error_code(std::errc::invalid_argument));
    bytes = base::readFile(file, kLongest);
  } catch (const std::system_error&) {
    say_(fmt::format("the alarms' history {} cannot be read; it begins anew", file.string()));
    locked_ = !putAside(file);
    return {};
  }
  if (!bytes.starts_with(kMagic)) {
    say_(fmt::format("{} is no alarms' history", file.string()));
    locked_ = !putAside(file);
    return {};
  }
  Reading reading = read(std::string_view(bytes).substr(kMagic.size()));
  entries_ = reading.entries;
  hasFile_ = reading.damaged == 0 && !reading.cut;
  if (reading.damaged > 0) {
    say_(fmt::format("the alarms' history {} is damaged: {} of {} entries are lost", file.string(),
                     reading.damaged, reading.entries));
    locked_ = !putAside(file);
  } else if (reading.cut) {
    say_(fmt::format("the alarms' history {} ends within an event, which is lost", file.string()));
  }
  return std::move(reading.events);
}

bool AlarmFile::putAside(const fs::path& file) {
  const fs::path aside = file.string() + ".damaged";
  std::error_code error;
  fs::rename(file, aside, error);
  if (error) {
    failed(fmt::format("cannot rename {} to {}: {}", file.string(), aside.string(), error.message()));
    return false;
  }
  say_(fmt::format("it is kept as {}", aside.string()));
  return true;
}

bool AlarmFile::append(const AlarmRecord& event) {
  if (!hasFile_) return false;
  base::Bytes bytes;
  put(bytes, event);
  const std::string failure = flash_.append(kPath, bytes);
  if (!failure.empty()) {
    hasFile_ = false;
    return false;
  }
  ++entries_;
  return true;
}

void AlarmFile::rewrite(const std::vector<AlarmRecord>& standing, const std::deque<AlarmRecord>& events) {
  if (locked_) return;
  base::Bytes bytes;
  bytes.reserve(kMagic.size() + (standing.size() + events.size()) * sizeof(Entry));
  bytes.assign(kMagic.begin(), kMagic.end());
  for (const AlarmRecord& event : standing) put(bytes, event);
  for (const AlarmRecord& event : events) put(bytes, event);
  const std::string failure = flash_.replace(kPath, bytes);
  hasFile_ = failure.empty();
  if (!hasFile_) return failed(failure);
  failure_.clear();
  entries_ = standing.size() + events.size();
}

// Said once, and again when it fails for another reason.
void AlarmFile::failed(const std::string& failure) {
  if (failure != failure_) say_("the alarms' history is not kept: " + failure);
  failure_ = failure;
}

}  // namespace headend
