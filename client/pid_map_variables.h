// Reads and writes the PID map variables of one channel over a link, with refusals as exceptions. What
// pid_map and pid_map_upload are written on.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "client/pid_map.h"

namespace client {

class PidMapVariables {
 public:
  PidMapVariables(Link& link, const Channel& channel) : link_(link), channel_(channel) {}

  const Channel& channel() const { return channel_; }

  // All throw LinkError, and PidMapError when the card or the chassis refuses or answers something else.
  bool locked();
  void setLock(bool locked);
  // As many chunks as it takes; one for an empty map, which sets the count to 0.
  void write(std::span<const MapEntry> entries);
  std::vector<MapEntry> read();

 private:
  Reply call(Operation operation, u16 variable, Bytes data, const std::string& what);
  MapChunk readChunk(u32 startPosition);
  [[noreturn]] void failOnReply(const std::string& what) const;

  Link& link_;
  Channel channel_;
};

}  // namespace client
