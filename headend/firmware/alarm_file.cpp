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

u32 checkOf(const AlarmRecord& event) {
  const auto* bytes = reinterpret_cast<const u8*>(&event);
  return mpeg::crc32({bytes + sizeof event.check, sizeof event - sizeof event.check});
}

void put(base::Bytes& bytes, AlarmRecord event) {
  event.check = checkOf(event);
  const auto* from = reinterpret_cast<const u8*>(&event);
  bytes.insert(bytes.end(), from, from + sizeof event);
}

struct Reading {
  std::deque<AlarmRecord> events;
  std::size_t entries = 0;
  std::size_t damaged = 0;  // entries
  bool cut = false;         // the last entry is incomplete, as after the end of a process during a write
};

Reading read(std::string_view bytes) {
  Reading reading;
  for (; bytes.size() >= sizeof(AlarmRecord); bytes.remove_prefix(sizeof(AlarmRecord))) {
    AlarmRecord event;
    std::memcpy(&event, bytes.data(), sizeof event);
    ++reading.entries;
    const std::uint64_t last = reading.events.empty() ? 0 : reading.events.back().number;
    if (event.check == checkOf(event) && event.number > last) {
      reading.events.push_back(event);
    } else {
      ++reading.damaged;
    }
  }
  reading.cut = !bytes.empty();
  return reading;
}

}  // namespace

std::deque<AlarmRecord> AlarmFile::load() {
  const fs::path file = flash_.hostPath(kPath).value();
  std::optional<std::string> bytes;
  std::string wrong;
  try {
    bytes = flash_.read(kPath, kLongest);
    if (!bytes) return {};
    if (!bytes->starts_with(kMagic)) wrong = fmt::format("{} is no alarms' history", file.string());
  } catch (const std::system_error&) {
    wrong = fmt::format("the alarms' history {} cannot be read; it begins anew", file.string());
  }
  if (!wrong.empty()) {
    say_(wrong);
    locked_ = !putAside(file);
    return {};
  }
  Reading reading = read(std::string_view(*bytes).substr(kMagic.size()));
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
  bytes.reserve(kMagic.size() + (standing.size() + events.size()) * sizeof(AlarmRecord));
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
