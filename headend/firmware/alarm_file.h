// The alarms' history in the flash folder: the last events, and before them those that raised what stood
// already when they began. An event is appended, so that whoever ends this process by force costs at most the
// last one; now and then the file is written anew, whole. Each entry has a checksum.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "headend/kernel/flash.h"
#include "platform/alarms.h"
#include "protocol/alarms.h"

namespace headend {

struct AlarmRecord {
  std::uint64_t number = 0;  // from 1, rising by one
  std::uint64_t ends = 0;    // the number of the event that raised the alarm which this one ends
  u32 at = 0;                // seconds since 1970-01-01 UTC
  protocol::AlarmEvent::Kind kind{};
  chassis::alarm_t alarm{};
};

class AlarmFile {
 public:
  // `say` is told what is wrong with a file.
  AlarmFile(Flash& flash, std::function<void(const std::string&)> say)
      : flash_(flash), say_(std::move(say)) {}

  // What can be read of the file. One that is damaged is put aside, and a new one takes its place.
  std::deque<AlarmRecord> load();
  // Entries of the file; false when it could not be kept whole: then `rewrite` is to try.
  bool append(const AlarmRecord& event);
  void rewrite(const std::vector<AlarmRecord>& standing, const std::deque<AlarmRecord>& events);

  std::size_t entries() const { return entries_; }
  bool kept() const { return failure_.empty(); }  // whether all events are in the file
  const std::string& failure() const { return failure_; }

 private:
  void failed(const std::string& failure);
  bool putAside(const std::filesystem::path& file);

  Flash& flash_;
  std::function<void(const std::string&)> say_;
  std::size_t entries_ = 0;
  bool hasFile_ = false;  // that holds all events so far
  bool locked_ = false;   // by a damaged file that cannot be put aside
  std::string failure_;
};

}  // namespace headend
