// A PID map as a CSV file: what operators write by hand, `qamctl pidmap show --csv` prints, and a rescue file
// holds. Slots and inputs count from 1 in it.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "client/link.h"
#include "protocol/records.h"

namespace client {

struct MapFile {
  std::vector<MapEntry> entries;
  std::vector<std::size_t> lines;  // of the entries, from 1
};

// Reads the header and lines of numbers, decimal or 0x; blank lines and those that begin with # are left out,
// lines may end in CR LF. Only the ranges are checked; checkMap does the rest. `name` stands before messages.
// Throws Error with the line's number.
MapFile parseMapFile(std::string_view text, const std::string& name);
// The same of a file; also throws Error when it cannot be read.
MapFile readMapFile(const std::filesystem::path& file);

std::string mapFileText(const std::vector<MapEntry>& entries);

}  // namespace client
