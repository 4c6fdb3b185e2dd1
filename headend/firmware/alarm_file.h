// The alarm history in the flash folder: the last events, after the events that raised the alarms active when
// the history begins. Events are appended, so a forced end of the process loses at most the last event. The
// file is rewritten completely from time to time. Each entry has a checksum.
#pragma once

#include <array>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "headend/kernel/flash.h"
#include "platform/alarms.h"
#include "protocol/alarms.h"

namespace headend {

// An entry of the file has this layout.
struct AlarmRecord {
  u32 check = 0;             // CRC-32 of the following fields, in the file
  u32 at = 0;                // seconds since 1970-01-01 UTC
  std::uint64_t number = 0;  // from 1, increases by one
  std::uint64_t ends = 0;    // the number of the event that raised the alarm that this event ends
  protocol::AlarmEvent::Kind kind{};
  std::array<u8, 7> reserved{};
  chassis::alarm_t alarm{};
};
static_assert(sizeof(AlarmRecord) == 32 + sizeof(chassis::alarm_t));
static_assert(offsetof(AlarmRecord, number) == 8 && offsetof(AlarmRecord, alarm) == 32);

class AlarmFile {
 public:
  // `say` is called with a message if the file has an error.
  AlarmFile(Flash& flash, std::function<void(const std::string&)> say)
      : flash_(flash), say_(std::move(say)) {}

  // Returns all readable entries of the file. A damaged file is renamed, and a new file replaces it.
  std::deque<AlarmRecord> load();
  // Entries of the file; false if it could not be saved completely: the caller then tries `rewrite`.
  bool append(const AlarmRecord& event);
  void rewrite(const std::vector<AlarmRecord>& standing, const std::deque<AlarmRecord>& events);

  std::size_t entries() const { return entries_; }
  bool kept() const { return failure_.empty(); }  // whether the file has all events
  const std::string& failure() const { return failure_; }

 private:
  void failed(const std::string& failure);
  bool putAside(const std::filesystem::path& file);

  Flash& flash_;
  std::function<void(const std::string&)> say_;
  std::size_t entries_ = 0;
  bool hasFile_ = false;  // the file has all events so far
  bool locked_ = false;   // by a damaged file that cannot be renamed
  std::string failure_;
};

}  // namespace headend
