// A PID map as a CSV file, for three cases: written by operators, printed by `qamctl pidmap show --csv`, or
// saved as a rescue file. Slots and inputs count from 1 in it.
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

// Reads the header and lines of numbers, decimal or 0x. Blank lines and lines that begin with # are ignored;
// lines may end in CR LF. Only the ranges are checked; checkMap checks the rest. `name` precedes messages.
// Throws Error with the line's number.
MapFile parseMapFile(std::string_view text, const std::string& name);
// The same for a file; also throws Error if it cannot be read.
MapFile readMapFile(const std::filesystem::path& file);

std::string mapFileText(const std::vector<MapEntry>& entries);

}  // namespace client
