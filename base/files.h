// Files read whole, and files replaced whole or not at all: a reader never finds one half written.
#pragma once

#include <filesystem>
#include <span>
#include <string>

#include "platform/types.h"

namespace base {

// The content of a file. Throws std::system_error that says why it cannot be read, or that it is longer than
// `most`.
std::string readFile(const std::filesystem::path& file, std::size_t most);

// Where a path leads, be there a file or none: without links. Throws std::system_error for a loop of links.
std::filesystem::path followLinks(std::filesystem::path path);

// An output that an operator names: a plain file is replaced whole, where its links lead; a device or pipe
// takes the bytes as they are. Throws std::system_error.
void writeOutput(const std::filesystem::path& path, std::span<const u8> bytes);

// Writes `bytes` to `aside`, a name in the same folder, flushes it, renames it to `file`, flushes the folder.
// Throws std::system_error that says which step failed; then `aside` is gone and `file` is as it was. Without
// the flushes only the end of the process is survived, not that of the machine: `flushFile` makes up for it.
enum class Flush { kNow, kLater };
void replaceFile(const std::filesystem::path& file, const std::filesystem::path& aside,
                 std::span<const u8> bytes, Flush flush = Flush::kNow);

// Appends `bytes` to a file that is there, whole or not at all. Throws std::system_error.
void appendToFile(const std::filesystem::path& file, std::span<const u8> bytes, Flush flush = Flush::kNow);

// Flushes a file and its folder. Throws std::system_error.
void flushFile(const std::filesystem::path& file);

}  // namespace base
